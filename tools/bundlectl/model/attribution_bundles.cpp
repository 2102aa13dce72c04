// Interprets the records about the server and its bundles, with one function for each. A thread does one task at a
// time, so its records are the steps of that task.
#include "attribution.h"

#include <algorithm>

namespace Model {

namespace {

using Step = AttributionStep;

void Begin(Step& step)
{
    step.bundle = step.Argument(0);
    step.thread.bundles.push_back(step.bundle);
}

void End(Step& step)
{
    if (!step.thread.bundles.empty()) {
        step.bundle = step.thread.bundles.back();
        step.thread.bundles.pop_back();
    }
}

// The server: its start, its phases.

void OnConfigRead(Step& step)
{
    Fact fact = step.NewFact(Fact::SERVER_STARTED);
    fact.text = step.Argument(0);
    step.Tell(fact);
}

void OnCollectionNamed(Step& step)
{
    Fact fact = step.NewFact(Fact::COLLECTION_NAMED);
    fact.path = step.Argument(0);
    step.Tell(fact);
}

void TellPhase(Step& step, Fact::Kind kind, Fact::Phase phase)
{
    Fact fact = step.NewFact(kind);
    fact.number = phase;
    step.Tell(fact);
}

/// At the end of a walk over all bundles, the server unloads the failed ones. It logs only a failure to do so.
void EndOfWalk(Step& step, Fact::Phase phase)
{
    for (const std::string& name : step.thread.failed) {
        step.Tell(Fact::UNLOADED, name);
    }
    step.thread.failed.clear();
    step.thread.bundles.clear();
    TellPhase(step, Fact::PHASE_ENDED, phase);
}

// Loading.

void BeginPath(Step& step, bool isLoading)
{
    step.thread.path = step.Argument(0);
    step.thread.isLoading = isLoading;
    step.thread.manifest = {};
    step.thread.bundles.clear();
    step.thread.reason.clear();
}

void OnLoadBegins(Step& step)
{
    BeginPath(step, true);
    Fact fact = step.NewFact(Fact::LOADING);
    fact.path = step.thread.path;
    step.Tell(fact);
}

void OnFindBegins(Step& step)
{
    BeginPath(step, false);
    step.bundle = step.BundleAt(step.thread.path);
}

void OnManifestName(Step& step)
{
    step.thread.manifest = {};
    step.thread.manifest.name = step.bundle = step.Argument(0);
    if (step.thread.isLoading) {
        step.thread.bundles = {step.bundle};
    }
}

void OnManifestDone(Step& step)
{
    if (step.thread.isLoading || step.thread.path.empty()) {
        return;
    }
    Fact fact = step.NewFact(Fact::MANIFEST_UPDATED);
    fact.path = step.thread.path;
    fact.bundle = step.BundleAt(fact.path);
    fact.manifest = &step.thread.manifest;
    step.bundle = fact.bundle;
    step.server.bundles.erase(fact.bundle);
    step.server.bundles[step.thread.manifest.name] = {fact.path, step.thread.manifest.items};
    step.Tell(fact);
}

void OnLoaded(Step& step)
{
    step.bundle = step.Argument(0);
    Fact fact = step.NewFact(Fact::LOADED);
    fact.bundle = step.bundle;
    fact.path = step.thread.path;
    fact.manifest = &step.thread.manifest;
    step.server.bundles[step.bundle] = {fact.path, step.thread.manifest.items};
    step.thread.bundles.clear();
    step.Tell(fact);
}

void Refuse(Step& step, Fact::Refusal refusal, const std::string& reason)
{
    Fact fact = step.NewFact(Fact::LOAD_REFUSED);
    fact.path = step.thread.path;
    fact.bundle = step.bundle = step.thread.manifest.name;
    fact.number = refusal;
    fact.text = reason;
    step.thread.bundles.clear();
    step.thread.reason.clear();
    step.Tell(fact);
}

// The reason follows the path, and both may contain a colon.
void OnLoadFailed(Step& step)
{
    const std::string_view path = step.thread.path;
    const auto* const begin = step.event.arguments[0].data();
    const std::string_view rest(begin, static_cast<std::size_t>(step.record.message.end() - begin));
    const bool isPathKnown = !path.empty() && rest.substr(0, path.size()) == path && rest.size() > path.size();
    Refuse(step, Fact::REFUSED_MANIFEST, isPathKnown ? std::string(rest.substr(path.size() + 1)) : step.Argument(1));
}

void OnAddedLoadFailed(Step& step)
{
    // A refusal has its own record, which this one repeats.
    if (step.thread.isLoading && !step.thread.reason.empty()) {
        Refuse(step, Fact::REFUSED_MANIFEST, std::string(step.thread.reason));
    }
    step.thread.isLoading = false;
}

// Resolving, starting, stopping, unloading.

void OnResolveFailed(Step& step)
{
    step.bundle = step.Argument(0);
    step.thread.bundles.clear();
    step.thread.failed.push_back(step.bundle);
    step.Tell(Fact::RESOLVE_FAILED, step.bundle, step.Argument(1));
}

void OnStartFailed(Step& step)
{
    step.bundle = step.Argument(0);
    step.thread.bundles.clear();
    step.thread.failed.push_back(step.bundle);
    step.Tell(Fact::START_FAILED, step.bundle, step.Argument(1));
}

void OnStarted(Step& step)
{
    End(step);
    if (step.bundle == step.thread.added) {
        step.thread.added.clear();
    }
    step.Tell(Fact::START_ENDED, step.bundle);
}

void OnStateChanges(Step& step)
{
    step.bundle = step.Argument(0);
    Fact fact = step.NewFact(Fact::STATE_CHANGED);
    fact.bundle = step.bundle;
    fact.path = step.Argument(1);
    fact.text = step.Argument(2);
    step.Tell(fact);
}

void OnUnloadFailed(Step& step)
{
    step.bundle = step.Argument(0);
    auto& failed = step.thread.failed;
    failed.erase(std::remove(failed.begin(), failed.end(), step.bundle), failed.end());
    step.thread.added.clear();
    step.Tell(Fact::UNLOAD_FAILED, step.bundle, step.Argument(1));
}

void OnUnloaded(Step& step)
{
    End(step);
    step.Tell(Fact::UNLOADED, step.bundle);
    step.server.bundles.erase(step.bundle);
}

void OnFailedChange(Step& step, Fact::Kind kind)
{
    step.bundle = step.Argument(0);
    step.Tell(kind, step.bundle, step.thread.reason);
    step.thread.bundles.clear();
    step.thread.reason.clear();
}

void OnDirectoryRemoved(Step& step)
{
    Fact fact = step.NewFact(Fact::REMOVED);
    fact.path = step.Argument(0);
    step.Tell(fact);
}

/// A thread begins another task. An unfinished task has failed. The failure of an added bundle has no record.
void BeginAnew(Step& step)
{
    if (!step.thread.added.empty()) {
        step.Tell(Fact::HOT_START_FAILED, step.thread.added);
        step.Tell(Fact::UNLOADED, step.thread.added);
    }
    step.thread = ThreadContext();
}

void OnRequest(Step& step)
{
    BeginAnew(step);
    Fact fact = step.NewFact(Fact::REQUEST);
    fact.number = step.event.Number(1);
    step.Tell(fact);
}

// Scripts.

void TellScript(Step& step, Fact::Kind kind, const std::string& script)
{
    constexpr std::string_view below = "/./script/";
    const std::string_view root = BundleDirectoryIn(script, below);
    Fact fact = step.NewFact(kind);
    fact.path = root;
    fact.text = script.substr(std::min(root.size() + below.size(), script.size()));
    fact.bundle = step.BundleAt(fact.path);
    if (fact.bundle.empty() && fact.path == step.thread.path) {
        fact.bundle = step.thread.manifest.name;
    }
    step.bundle = fact.bundle;
    step.Tell(fact);
}

void OnScriptBegins(Step& step)
{
    step.thread.script = step.Argument(0);
    TellScript(step, Fact::SCRIPT_BEGAN, step.thread.script);
}

void OnScriptDone(Step& step)
{
    TellScript(step, Fact::SCRIPT_ENDED, step.Argument(0));
    step.thread.script.clear();
}

void OnReason(Step& step)
{
    if (step.thread.script.empty()) {
        step.thread.reason = step.Argument(0);
        return;
    }
    // A script that could not be run or awaited.
    TellScript(step, Fact::SCRIPT_ENDED, step.thread.script);
    step.thread.script.clear();
}

void TellPath(Step& step, Fact::Kind kind)
{
    Fact fact = step.NewFact(kind);
    fact.path = step.Argument(0);
    fact.text = step.Argument(1);
    step.Tell(fact);
}

void OnResolveBegins(Step& step)
{
    Begin(step);
    step.Tell(Fact::RESOLVE_BEGAN, step.bundle);
}

void OnResolved(Step& step)
{
    End(step);
    step.Tell(Fact::RESOLVE_ENDED, step.bundle);
}

void OnStartBegins(Step& step)
{
    Begin(step);
    step.Tell(Fact::START_BEGAN, step.bundle);
}

template <Fact::Kind KIND> void TellPlainly(Step& step)
{
    step.Tell(step.NewFact(KIND));
}
template <Fact::Phase PHASE> void OnPhaseBegins(Step& step)
{
    TellPhase(step, Fact::PHASE_BEGAN, PHASE);
}
template <Fact::Phase PHASE> void OnPhaseDone(Step& step)
{
    EndOfWalk(step, PHASE);
}
template <Fact::Kind KIND> void OnChangeFailed(Step& step)
{
    OnFailedChange(step, KIND);
}
template <Fact::Kind KIND> void OnPath(Step& step)
{
    TellPath(step, KIND);
}
void OnRecordsLost(Step& step)
{
    Fact fact = step.NewFact(Fact::RECORDS_LOST);
    fact.number = step.event.Number(0);
    step.Tell(fact);
}

} // namespace

const Meaning BUNDLE_MEANINGS[] = {
    {EventKind::CONFIG_READ_BEGINS, OnConfigRead},
    {EventKind::COLLECTION_NAMED, OnCollectionNamed},
    {EventKind::LOAD_ALL_BEGINS, OnPhaseBegins<Fact::PHASE_LOAD>},
    {EventKind::LOAD_ALL_DONE, OnPhaseDone<Fact::PHASE_LOAD>},
    {EventKind::RESOLVE_ALL_BEGINS, OnPhaseBegins<Fact::PHASE_RESOLVE>},
    {EventKind::RESOLVE_ALL_DONE, OnPhaseDone<Fact::PHASE_RESOLVE>},
    {EventKind::START_ALL_BEGINS, OnPhaseBegins<Fact::PHASE_START>},
    {EventKind::START_ALL_DONE, OnPhaseDone<Fact::PHASE_START>},
    {EventKind::INIT_DONE, TellPlainly<Fact::SERVER_READY>},
    {EventKind::SERVING, TellPlainly<Fact::SERVING>},
    {EventKind::SERVICE_FAILED, TellPlainly<Fact::SERVICE_FAILED>},
    {EventKind::LOAD_BEGINS, OnLoadBegins},
    {EventKind::ADDED_LOAD_BEGINS, OnLoadBegins},
    {EventKind::MANIFEST_NAME, OnManifestName},
    {EventKind::MANIFEST_MODE, [](Step& step) { step.thread.manifest.mode = step.event.Number(0); }},
    {EventKind::MANIFEST_REQUIRES, [](Step& step) { step.thread.manifest.required.push_back(step.Argument(0)); }},
    {EventKind::MANIFEST_ITEM, [](Step& step) { step.thread.manifest.items.push_back(step.Argument(0)); }},
    {EventKind::MANIFEST_DONE, OnManifestDone},
    {EventKind::LOADED, OnLoaded},
    {EventKind::DUPLICATE, [](Step& step) { Refuse(step, Fact::REFUSED_DUPLICATE, std::string(step.record.message)); }},
    {EventKind::MODE_REFUSED, [](Step& step) { Refuse(step, Fact::REFUSED_MODE, std::string(step.record.message)); }},
    {EventKind::ADDED_LOADED, [](Step& step) { step.thread.added = step.bundle = step.Argument(0); }},
    {EventKind::LOAD_FAILED, OnLoadFailed},
    {EventKind::ADDED_LOAD_FAILED, OnAddedLoadFailed},
    {EventKind::RESOLVE_BEGINS, OnResolveBegins},
    {EventKind::RESOLVE_DONE, OnResolved},
    {EventKind::RESOLVE_FAILED, OnResolveFailed},
    {EventKind::START_BEGINS, OnStartBegins},
    {EventKind::START_DONE, OnStarted},
    {EventKind::START_FAILED, OnStartFailed},
    {EventKind::STATE_CHANGES, OnStateChanges},
    {EventKind::STOP_BEGINS, Begin},
    {EventKind::STOP_DONE, End},
    {EventKind::UNLOAD_BEGINS, Begin},
    {EventKind::UNLOAD_DONE, OnUnloaded},
    {EventKind::UNLOAD_FAILED, OnUnloadFailed},
    {EventKind::UNINSTALLING_FAILED, OnChangeFailed<Fact::STOP_FAILED>},
    {EventKind::UPDATE_FAILED, OnChangeFailed<Fact::UPDATE_FAILED>},
    {EventKind::DIRECTORY_REMOVED, OnDirectoryRemoved},
    {EventKind::REASON, OnReason},
    {EventKind::SCRIPT_BEGINS, OnScriptBegins},
    {EventKind::SCRIPT_DONE, OnScriptDone},
    {EventKind::ADDED, BeginAnew},
    {EventKind::REMOVED, BeginAnew},
    {EventKind::MODIFIED, BeginAnew},
    {EventKind::FIND_BEGINS, OnFindBegins},
    {EventKind::REQUEST, OnRequest},
    {EventKind::COLLECTION_UNREADABLE, OnPath<Fact::COLLECTION_UNREADABLE>},
    {EventKind::COLLECTION_READABLE, OnPath<Fact::COLLECTION_READABLE>},
    {EventKind::RECORDS_LOST, OnRecordsLost},
    {EventKind::NONE, nullptr},
};

} // namespace Model
