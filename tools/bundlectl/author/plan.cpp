#include "plan.h"

#include "model/collection.h"
#include "model/files.h"
#include "model/quiet_log.h"
#include "plan_factory.h"
#include "printable.h"

#include <bundle_log.h>
#include <bundle_manager.h>

#include <Poco/Exception.h>
#include <Poco/Path.h>

#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <set>
#include <stdexcept>
#include <string_view>

namespace Plans {

namespace {

using SystemServer::Bundle;
using SystemServer::BundleManager;

bool BeginsWith(const std::string& text, std::string_view beginning)
{
    return text.compare(0, beginning.size(), beginning) == 0;
}

/// The text between two parts of a text; empty when they are missing.
std::string Between(const std::string& text, std::string_view before, std::string_view behind)
{
    const std::size_t begin = text.find(before);
    const std::size_t end = begin == std::string::npos ? begin : text.find(behind, begin + before.size());
    return end == std::string::npos ? "" : text.substr(begin + before.size(), end - begin - before.size());
}

class Maker {
public:
    explicit Maker(const std::string& collection) : m_collection(collection) {}
    Maker(const Maker&) = delete;
    Maker& operator=(const Maker&) = delete;
    ~Maker() { Model::SetRecordSink({}); }

    Plan Make(const Change& change);

private:
    void Start();
    void Apply(const Change& change);
    void Add(const std::string& directory);
    void Delete(const std::string& name);
    void Update(const std::string& directory);

    void Take(int level, const std::string& text);
    void TakeState(const std::string& text);
    Step& Tell(Step::Kind kind, const std::string& bundle, const std::string& path);
    std::string ScriptOf(const std::string& path, const std::string& name) const;
    std::string PathOf(const std::string& bundle) const;
    /// Runs one of the server's steps, and returns the text of its exception.
    static std::string ReasonWhy(const std::function<void()>& part);
    std::string PathIn(const std::string& directory) const
    {
        return Poco::Path(m_collection).makeDirectory().toString() + Model::BaseName(directory);
    }

    const std::string m_collection;
    const std::shared_ptr<PlanFactory> m_factory = std::make_shared<PlanFactory>();
    BundleManager m_manager{m_factory};
    Plan m_plan;
    std::string m_path; // the directory that is being loaded
};

Plan Maker::Make(const Change& change)
{
    Model::SetRecordSink([this](int level, const std::string& text) { Take(level, text); });
    Start();
    if (change.kind != Change::NONE && m_plan.trouble.empty()) {
        m_plan.steps.clear();
        m_plan.records.clear();
        Apply(change);
    }
    for (const Step& step : m_plan.steps) {
        m_plan.leastSeconds += step.launches;
    }
    return std::move(m_plan);
}

void Maker::Start()
{
    try {
        std::string directory = m_collection;
        m_manager.LoadAllBundles(directory);
    } catch (const std::out_of_range& e) {
        Tell(Step::ENDS, "", m_path).message = Printable(e.what());
        return;
    } catch (const Poco::Exception& e) {
        m_plan.trouble = Printable(e.displayText());
        return;
    }
    m_manager.ResolveAllBundles();
    m_manager.StartAllBundles();
}

// The records are the same as the server's, because the same manager writes them.
void Maker::Take(int level, const std::string& text)
{
    const bool isState = text.find("] state changing[") != std::string::npos;
    if (BeginsWith(text, "load bundle from ")) {
        m_path = Between(text, "load bundle from ", "...");
    } else if (BeginsWith(text, "load bundle[") && text.find("] success.") != std::string::npos) {
        Tell(Step::LOADS, Between(text, "[", "] success."), m_path).script = ScriptOf(m_path, "install.sh");
    } else if (isState) {
        TakeState(text);
    } else if (BeginsWith(text, "failed to load bundles from ")) {
        Tell(Step::REFUSES, "", m_path).message = Printable(text);
    } else if (text == "create bundle activator fail." || text.find("] already exists.") != std::string::npos) {
        Step& step = Tell(Step::REFUSES, "", m_path);
        step.message = Printable(text);
        step.script = ScriptOf(m_path, "install.sh"); // it has already run
    } else if (BeginsWith(text, "failed to resolve bundle[") || BeginsWith(text, "failed to start bundle[")) {
        const std::string bundle = Between(text, "bundle[", "] :");
        Step& step = Tell(Step::UNLOADS, bundle, PathOf(bundle));
        step.message = Printable(text);
        step.script = ScriptOf(step.path, "uninstall.sh");
    } else if (level != SystemServer::LOG_LEVEL_ERROR) {
        return;
    }
    m_plan.records.push_back(text);
}

void Maker::TakeState(const std::string& text)
{
    const std::string bundle = Between(text, "bundle[", "] state changing[");
    const std::string state = Between(text, "-> [", "]");
    const std::string former = Between(text, "state changing[", "]");
    if (former == "Installed" && state == "Resolved") {
        Tell(Step::RESOLVES, bundle, PathOf(bundle));
    } else if (state == "Active") {
        const auto known = m_factory->Bundles().find(bundle);
        Tell(Step::STARTS, bundle, PathOf(bundle)).launches =
            known == m_factory->Bundles().end() ? 0 : known->second.items;
    } else if (former == "Stopping") {
        Tell(Step::STOPS, bundle, PathOf(bundle));
    }
}

Step& Maker::Tell(Step::Kind kind, const std::string& bundle, const std::string& path)
{
    Step step;
    step.kind = kind;
    step.bundle = Printable(bundle);
    step.path = path;
    m_plan.steps.push_back(std::move(step));
    return m_plan.steps.back();
}

std::string Maker::ScriptOf(const std::string& path, const std::string& name) const
{
    struct stat status {};
    const std::string file = m_factory->SourceOf(path) + "/script/" + name;
    return ::stat(file.c_str(), &status) == 0 ? name : "";
}

std::string Maker::PathOf(const std::string& bundle) const
{
    const auto known = m_factory->Bundles().find(bundle);
    return known == m_factory->Bundles().end() ? "" : known->second.path;
}

std::string Maker::ReasonWhy(const std::function<void()>& part)
{
    try {
        part();
        return {};
    } catch (const std::exception& e) {
        return Printable(SystemServer::ReasonOf(e));
    }
}

void Maker::Apply(const Change& change)
{
    switch (change.kind) {
    case Change::ADD:
        Add(change.subject);
        break;
    case Change::DELETE:
        Delete(change.subject);
        break;
    case Change::UPDATE:
        Update(change.subject);
        break;
    case Change::NONE:
        break;
    }
}

void Maker::Add(const std::string& directory)
{
    m_path = PathIn(directory);
    m_factory->Replace(m_path, directory);
    std::shared_ptr<Bundle> bundle;
    const std::size_t before = m_plan.steps.size();
    const std::string reason = ReasonWhy([&] { bundle = m_manager.LoadBundle(m_path); });
    if (!bundle) {
        if (m_plan.steps.size() == before) {
            Tell(Step::REFUSES, "", m_path).message = reason;
        }
        return;
    }
    const std::string failure = ReasonWhy([&] {
        m_manager.ResolveBundle(bundle);
        m_manager.StartBundle(bundle);
    });
    if (!failure.empty()) {
        m_manager.UnloadBundle(bundle);
        Step& step = Tell(Step::UNLOADS, bundle->GetManifest()->GetBundleName(), m_path);
        step.message = failure;
        step.script = ScriptOf(m_path, "uninstall.sh");
    }
}

void Maker::Delete(const std::string& name)
{
    const std::shared_ptr<Bundle> bundle = m_manager.FindBundleByName(name);
    m_plan.records.clear();
    if (!bundle) {
        m_plan.isUnknownBundle = true;
        return;
    }
    const std::string path = PathOf(name);
    m_manager.StopBundle(bundle);
    m_manager.UnloadBundle(bundle);
    Tell(Step::UNLOADS, name, path).script = ScriptOf(path, "uninstall.sh");
}

void Maker::Update(const std::string& directory)
{
    PlanFactory reader;
    std::shared_ptr<Bundle> next;
    const std::string unreadable = ReasonWhy([&] { next = reader.CreateBundle(directory); });
    m_plan.records.clear();
    const std::string name = next ? next->GetManifest()->GetBundleName() : "";
    std::string path = PathOf(name);
    path = path.empty() ? PathIn(directory) : path;
    const auto known = std::find_if(m_factory->Bundles().begin(), m_factory->Bundles().end(),
                                    [&path](const auto& entry) { return entry.second.path == path; });
    const std::shared_ptr<Bundle> bundle =
        known == m_factory->Bundles().end() ? nullptr : m_manager.FindBundleByName(known->first);
    m_plan.records.clear();
    if (!bundle) {
        m_plan.isUnknownBundle = true;
        return;
    }
    const std::string former = bundle->GetManifest()->GetBundleName();
    m_factory->Replace(path, directory);
    Step& step = Tell(Step::UPDATES, former, path);
    step.message = unreadable;
    if (!unreadable.empty()) {
        return; // the old one keeps running
    }
    step.script = ScriptOf(path, "update.sh");
    const std::string failure = ReasonWhy([&] {
        bundle->Update();
        m_manager.StopBundle(bundle);
        m_manager.StartBundle(bundle);
    });
    if (!failure.empty()) {
        m_plan.steps.front().message = failure;
    }
}

/// The effects of a change on bundles that require the bundle, directly or indirectly.
std::vector<Affected> FindAffected(const std::string& collection, const std::string& name, const char* text)
{
    std::vector<Affected> affected;
    std::set<std::string> reached{Printable(name)};
    const Model::Collection found = Model::ReadCollection(collection, ".");
    for (bool isChanged = true; isChanged;) {
        isChanged = false;
        for (const Model::DeclaredBundle& bundle : found.bundles) {
            const bool isReached = std::any_of(bundle.required.begin(), bundle.required.end(),
                                               [&](const std::string& other) { return reached.count(other) != 0; });
            if (isReached && bundle.verdict == Model::Verdict::STARTS && reached.insert(bundle.name).second) {
                affected.push_back({bundle.name, text});
                isChanged = true;
            }
        }
    }
    return affected;
}

} // namespace

Plan MakePlan(const std::string& collection, const Change& change)
{
    Plan plan = Maker(collection).Make(change);
    if (plan.isUnknownBundle || plan.steps.empty()) {
        return plan;
    }
    const std::string& name = plan.steps.front().bundle;
    if (change.kind == Change::DELETE) {
        plan.affected = FindAffected(collection, name, "goes on; it will not start at the next start of the server");
    } else if (change.kind == Change::UPDATE) {
        plan.affected = FindAffected(collection, name, "goes on, and is not restarted");
    }
    return plan;
}

} // namespace Plans
