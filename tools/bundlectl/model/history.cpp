#include "history.h"

#include "end_name.h"
#include "log_reader.h"

#include <algorithm>
#include <array>
#include <utility>

namespace Model {

namespace {

struct StateName {
    BundleState state;
    const char* name;
};

constexpr std::array<StateName, 7> STATE_NAMES{{
    {BundleState::UNKNOWN, "unknown"},
    {BundleState::INSTALLED, "Installed"},
    {BundleState::RESOLVED, "Resolved"},
    {BundleState::STARTING, "Starting"},
    {BundleState::ACTIVE, "Active"},
    {BundleState::STOPPING, "Stopping"},
    {BundleState::GONE, "gone"},
}};

constexpr std::size_t MOST_SERVERS = 8;

BundleHistory& BundleOf(ServerHistory& server, const std::string& name)
{
    BundleHistory& bundle = server.bundles[name];
    bundle.name = name;
    return bundle;
}

ItemHistory& ItemOf(BundleHistory& bundle, const std::string& name)
{
    for (ItemHistory& item : bundle.items) {
        if (item.name == name) {
            return item;
        }
    }
    bundle.items.emplace_back();
    bundle.items.back().name = name;
    // The items of a manifest that the log has are known. So this one has been removed from it, and still ends.
    bundle.items.back().isInManifest = !bundle.manifestRead;
    return bundle.items.back();
}

ItemHistory& ItemOf(ServerHistory& server, const Fact& fact)
{
    return ItemOf(BundleOf(server, fact.bundle), fact.item);
}

void SetState(BundleHistory& bundle, BundleState state, const Fact& fact)
{
    bundle.state = state;
    bundle.since = fact.time;
    bundle.stateLine = fact.line;
}

void SetManifest(BundleHistory& bundle, const Fact& fact)
{
    bundle.path = fact.path;
    bundle.manifestRead = fact.time;
    bundle.mode = fact.manifest->mode;
    bundle.required = fact.manifest->required;
    // The history of a removed item is kept, because its process may still run. An item that is removed and added again
    // is a new item.
    std::vector<ItemHistory> items;
    for (const std::string& name : fact.manifest->items) {
        ItemHistory& known = ItemOf(bundle, name);
        items.push_back(known.isInManifest || known.pid != 0 ? std::move(known) : ItemHistory());
        items.back().name = name;
        items.back().isInManifest = true;
    }
    for (ItemHistory& item : bundle.items) {
        if (item.pid != 0 && !item.name.empty()) {
            item.isInManifest = false;
            items.push_back(std::move(item));
        }
    }
    bundle.items = std::move(items);
}

// A bundle that comes again under the same name is a new bundle.
void OnLoaded(ServerHistory& server, const Fact& fact)
{
    server.refused.erase(fact.path);
    BundleHistory& bundle = BundleOf(server, fact.bundle);
    std::deque<ScriptRun> scripts = std::move(bundle.scripts);
    std::map<std::string, Microseconds> scriptTimes = std::move(bundle.scriptTimes);
    bundle = BundleHistory();
    bundle.name = fact.bundle;
    bundle.scripts = std::move(scripts);
    bundle.scriptTimes = std::move(scriptTimes);
    bundle.loaded = fact.time;
    SetManifest(bundle, fact);
    SetState(bundle, BundleState::INSTALLED, fact);
}

void OnManifestUpdated(ServerHistory& server, const Fact& fact)
{
    const std::string& name = fact.manifest->name;
    if (!fact.bundle.empty() && fact.bundle != name && server.bundles.count(fact.bundle) != 0) {
        BundleHistory renamed = std::move(server.bundles[fact.bundle]);
        server.bundles.erase(fact.bundle);
        renamed.name = name;
        server.bundles[name] = std::move(renamed);
    }
    SetManifest(BundleOf(server, name), fact);
}

Problem ProblemOf(const Fact& fact)
{
    Problem problem;
    problem.kind = fact.kind;
    problem.refusal = fact.number;
    problem.time = fact.time;
    problem.reason = fact.text;
    problem.line = fact.line;
    return problem;
}

void OnRefused(ServerHistory& server, const Fact& fact)
{
    server.refused[fact.path] = {fact.path, fact.bundle, ProblemOf(fact)};
}

void OnProblem(ServerHistory& server, const Fact& fact)
{
    BundleOf(server, fact.bundle).problem = ProblemOf(fact);
}

void OnStateChanged(ServerHistory& server, const Fact& fact)
{
    BundleHistory& bundle = BundleOf(server, fact.bundle);
    SetState(bundle, StateOf(fact.text), fact);
    if (bundle.state == BundleState::ACTIVE && fact.path == NameOf(BundleState::STARTING)) {
        bundle.problem.reset();
    }
    constexpr int threadMode = 1;
    if (bundle.state == BundleState::RESOLVED && bundle.mode == threadMode) {
        for (ItemHistory& item : bundle.items) { // their threads were cancelled, but no record says so
            item.pid = 0;
            item.since.reset();
        }
    }
}

void OnUnloaded(ServerHistory& server, const Fact& fact)
{
    SetState(BundleOf(server, fact.bundle), BundleState::GONE, fact);
}

ScriptRun ScriptOf(const Fact& fact)
{
    ScriptRun run;
    run.name = fact.text;
    run.bundle = fact.bundle;
    run.began = fact.time;
    run.line = fact.line;
    return run;
}

void OnScriptBegan(ServerHistory& server, const Fact& fact)
{
    server.running[fact.thread] = ScriptOf(fact);
}

void OnScriptEnded(ServerHistory& server, const Fact& fact)
{
    const auto begun = server.running.find(fact.thread);
    if (begun == server.running.end()) {
        return;
    }
    begun->second.took = fact.time - begun->second.began;
    BundleHistory& bundle = BundleOf(server, begun->second.bundle);
    bundle.scriptTimes[begun->second.name] += *begun->second.took;
    bundle.scripts.push_back(std::move(begun->second));
    if (bundle.scripts.size() > BundleHistory::KEPT_SCRIPTS) {
        bundle.scripts.pop_front();
    }
    server.running.erase(begun);
}

void OnLaunched(ServerHistory& server, const Fact& fact)
{
    ItemHistory& item = ItemOf(server, fact);
    item.pid = fact.pid;
    item.since = fact.time;
    item.executed.clear();
    item.executeError = 0;
    item.launchLine = fact.line;
    ++item.launches;
    if (fact.number == 0) {
        item.isInManifest = true; // also when the record of the manifest's item is lost
        return;
    }
    ++item.relaunches;
    item.relaunchTimes.push_back(fact.time);
    // The clock may have been set back. So it keeps as many as an hour can have at one relaunch a second.
    constexpr std::size_t most = 3600;
    while (item.relaunchTimes.size() > most || fact.time - item.relaunchTimes.front() > std::chrono::hours(1)) {
        item.relaunchTimes.pop_front();
    }
}

void OnExecutes(ServerHistory& server, const Fact& fact)
{
    ItemOf(server, fact).executed = fact.path;
}

void OnExecuteFailed(ServerHistory& server, const Fact& fact)
{
    ItemOf(server, fact).executeError = fact.number;
}

void OnEnd(ServerHistory& server, const Fact& fact)
{
    ItemHistory& item = ItemOf(server, fact);
    ItemEnd end;
    end.time = fact.time;
    end.pid = fact.pid;
    end.isSignal = fact.kind == Fact::ITEM_KILLED;
    end.number = fact.number;
    end.line = fact.line;
    ++item.endCounts[NameOfEnd(end.isSignal, end.number)];
    item.ends.push_back(std::move(end));
    if (item.ends.size() > ItemHistory::KEPT_ENDS) {
        item.ends.pop_front();
    }
    if (item.pid == fact.pid) {
        item.pid = 0;
        item.since.reset();
    }
}

void OnAfterEnd(ServerHistory& server, const Fact& fact)
{
    ItemHistory& item = ItemOf(server, fact);
    if (item.ends.empty() || item.ends.back().pid != fact.pid) {
        return;
    }
    const bool rests = fact.kind == Fact::ITEM_RESTS;
    item.ends.back().then = rests                             ? ItemEnd::RESTS
                            : fact.kind == Fact::ITEM_STOPPED ? ItemEnd::STOPPED
                                                              : ItemEnd::RELAUNCHED;
}

void OnThread(ServerHistory& server, const Fact& fact)
{
    ItemHistory& item = ItemOf(server, fact);
    const bool starts = fact.kind == Fact::THREAD_STARTED;
    item.launches += starts ? 1 : 0;
    item.pid = starts ? fact.thread : 0;
    item.since = starts ? std::optional<Time>(fact.time) : std::nullopt;
    item.hasEnded = !starts;
    item.failure = fact.kind == Fact::THREAD_FAILED ? fact.text : std::string();
    item.launchLine = fact.line;
}

void OnMonitor(ServerHistory& server, const Fact& fact)
{
    using Monitor = ServerHistory::Monitor;
    server.monitor = fact.kind == Fact::MONITOR_STARTED ? Monitor::RUNS
                     : fact.kind == Fact::MONITOR_ENDED ? Monitor::ENDED
                                                        : Monitor::DIED;
    server.monitorError = fact.number;
}

void OnStarted(ServerHistory& server, const Fact& fact)
{
    server.isWhole = true;
    server.configuration = fact.text;
}

struct Handler {
    Fact::Kind kind;
    void (*handler)(ServerHistory& server, const Fact& fact);
};

constexpr Handler HANDLERS[] = {
    {Fact::SERVER_STARTED, OnStarted},
    {Fact::COLLECTION_NAMED, [](ServerHistory& server, const Fact& fact) { server.collection = fact.path; }},
    {Fact::SERVER_READY, [](ServerHistory& server, const Fact& fact) { server.ready = fact.time; }},
    {Fact::SERVING, [](ServerHistory& server, const Fact& fact) { server.serving = fact.time; }},
    {Fact::SERVICE_FAILED, [](ServerHistory& server, const Fact& /*fact*/) { server.hasNoService = true; }},
    {Fact::LOADED, OnLoaded},
    {Fact::LOAD_REFUSED, OnRefused},
    {Fact::MANIFEST_UPDATED, OnManifestUpdated},
    {Fact::STATE_CHANGED, OnStateChanged},
    {Fact::RESOLVE_FAILED, OnProblem},
    {Fact::START_FAILED, OnProblem},
    {Fact::HOT_START_FAILED, OnProblem},
    {Fact::STOP_FAILED, OnProblem},
    {Fact::UPDATE_FAILED, OnProblem},
    {Fact::UNLOADED, OnUnloaded},
    {Fact::SCRIPT_BEGAN, OnScriptBegan},
    {Fact::SCRIPT_ENDED, OnScriptEnded},
    {Fact::ITEM_LAUNCHED, OnLaunched},
    {Fact::ITEM_EXECUTES, OnExecutes},
    {Fact::EXECUTE_FAILED, OnExecuteFailed},
    {Fact::ITEM_EXITED, OnEnd},
    {Fact::ITEM_KILLED, OnEnd},
    {Fact::ITEM_RESTS, OnAfterEnd},
    {Fact::ITEM_STOPPED, OnAfterEnd},
    {Fact::ITEM_RELAUNCHES, OnAfterEnd},
    {Fact::THREAD_STARTED, OnThread},
    {Fact::THREAD_ENDED, OnThread},
    {Fact::THREAD_FAILED, OnThread},
    {Fact::MONITOR_STARTED, OnMonitor},
    {Fact::MONITOR_ENDED, OnMonitor},
    {Fact::MONITOR_DIED, OnMonitor},
    {Fact::COLLECTION_UNREADABLE, [](ServerHistory& server, const Fact& fact) { server.unreadable = fact.text; }},
    {Fact::COLLECTION_READABLE, [](ServerHistory& server, const Fact& /*fact*/) { server.unreadable.clear(); }},
    {Fact::RECORDS_LOST,
     [](ServerHistory& server, const Fact& fact) { server.lostRecords += static_cast<std::uint64_t>(fact.number); }},
};

} // namespace

BundleState StateOf(std::string_view name)
{
    const auto* const found = std::find_if(STATE_NAMES.begin(), STATE_NAMES.end(),
                                           [name](const StateName& candidate) { return candidate.name == name; });
    return found == STATE_NAMES.end() ? BundleState::UNKNOWN : found->state;
}

const char* NameOf(BundleState state)
{
    return STATE_NAMES[static_cast<std::size_t>(state)].name;
}

std::size_t ItemHistory::RelaunchesSince(Time time) const
{
    return static_cast<std::size_t>(
        std::count_if(relaunchTimes.begin(), relaunchTimes.end(), [time](Time relaunch) { return relaunch >= time; }));
}

const BundleHistory* ServerHistory::Find(const std::string& bundle) const
{
    const auto found = bundles.find(bundle);
    return found == bundles.end() ? nullptr : &found->second;
}

void History::Take(const Fact& fact)
{
    ServerHistory& server = ServerOf(fact);
    server.last = fact.time;
    for (const Handler& handler : HANDLERS) {
        if (handler.kind == fact.kind) {
            handler.handler(server, fact);
            return;
        }
    }
}

const ServerHistory* History::Find(pid_t server) const
{
    const auto found = std::find_if(m_servers.rbegin(), m_servers.rend(),
                                    [server](const auto& candidate) { return candidate->pid == server; });
    return found == m_servers.rend() ? nullptr : found->get();
}

ServerHistory& History::ServerOf(const Fact& fact)
{
    const auto found = std::find_if(m_servers.rbegin(), m_servers.rend(),
                                    [&fact](const auto& candidate) { return candidate->pid == fact.server; });
    if (found != m_servers.rend() && fact.kind != Fact::SERVER_STARTED) {
        return **found;
    }
    if (m_servers.size() >= MOST_SERVERS) {
        m_servers.erase(m_servers.begin());
    }
    m_servers.push_back(std::make_unique<ServerHistory>());
    m_servers.back()->pid = fact.server;
    m_servers.back()->first = fact.time;
    return *m_servers.back();
}

void ReadAll(LogReader& reader, Attribution& attribution)
{
    LogRecord record;
    while (reader.Next(record)) {
        attribution.Take(record);
    }
}

} // namespace Model
