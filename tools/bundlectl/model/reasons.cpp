#include "reasons.h"

#include "refusal_words.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <utility>

namespace Model {

namespace {

/// A script that has run for this long is mentioned.
constexpr std::chrono::seconds LONG(2);

/// After this time, a step that the server has not finished counts as failed.
constexpr std::chrono::seconds PATIENCE(5);

/// Collects the reasons of one bundle.
class Inquiry {
public:
    Inquiry(const Snapshot& snapshot, const BundleStatus& bundle, bool checkFiles)
        : m_snapshot(snapshot), m_bundle(bundle), m_checkFiles(checkFiles)
    {}

    std::vector<Reason> Run();

private:
    void AddServer();
    void AddScript();
    pid_t ProcessOf(const ScriptRun& script) const;
    void AddState();
    void AddProblem();
    void AddRefusal();
    void AddHotStart();
    void AddStarting();
    void AddDirectory();
    void AddMonitor();
    void AddHealth();
    Reason& Add(const char* kind, std::string text, std::string brief, std::string remedy = {});
    std::string Ago(Time time) const { return SpanText(m_snapshot.taken - time) + " ago"; }

    const Snapshot& m_snapshot;
    const BundleStatus& m_bundle;
    const bool m_checkFiles;
    std::vector<Reason> m_reasons;
};

Reason& Inquiry::Add(const char* kind, std::string text, std::string brief, std::string remedy)
{
    return AddReason(m_reasons, kind, std::move(text), std::move(brief), std::move(remedy));
}

std::vector<Reason> Inquiry::Run()
{
    AddServer();
    AddScript();
    if (m_bundle.state == BundleState::ACTIVE) {
        AddProblem();
    } else {
        AddState();
    }
    AddDirectory();
    AddMonitor();
    if (m_bundle.state == BundleState::ACTIVE || m_bundle.history == nullptr) {
        for (Reason& reason : ReasonsOfItems(m_snapshot, m_bundle, m_checkFiles)) {
            m_reasons.push_back(std::move(reason));
        }
    }
    AddHealth();
    return std::move(m_reasons);
}

void Inquiry::AddServer()
{
    if (!m_snapshot.installation.server) {
        Add("server-down", "No bundle server runs.", "no server runs", "systemctl start bundle-server");
    } else if (m_snapshot.server == nullptr || m_bundle.state == BundleState::UNKNOWN) {
        Add("log-unknown", "The log does not tell what the server has done with it.", "the log does not tell");
    }
}

// The script's process whose start time matches the log.
pid_t Inquiry::ProcessOf(const ScriptRun& script) const
{
    constexpr std::chrono::seconds tolerance(2);
    for (const BundleProcess& process : m_snapshot.processes) {
        const Microseconds apart = Proc().StartTime(process.stat) - script.began;
        if (process.role == ProcessRole::SCRIPT && process.stat.group == process.stat.pid && apart < tolerance &&
            apart > -tolerance) {
            return process.stat.pid;
        }
    }
    return 0;
}

// While it runs, nothing else is loaded, started or stopped.
void Inquiry::AddScript()
{
    if (m_snapshot.server == nullptr || m_bundle.IsHealthy()) {
        return;
    }
    for (const auto& [thread, script] : m_snapshot.server->running) {
        const Microseconds runs = m_snapshot.taken - script.began;
        if (runs < LONG) {
            continue;
        }
        const std::string whose = script.bundle == m_bundle.name ? "Its script " : "The script ";
        const std::string of = script.bundle == m_bundle.name ? "" : " of the bundle \"" + script.bundle + "\"";
        std::string remedy = "Wait for it, or end it.";
        if (const pid_t pid = ProcessOf(script); pid != 0) {
            remedy = "Wait for it, or end it: kill " + std::to_string(pid);
        }
        Add("script-holds",
            whose + script.name + of + " has run for " + SpanText(runs) +
                ". Until it ends, the server loads, starts and stops nothing.",
            script.name + of + " runs for " + SpanText(runs), remedy)
            .evidence = {script.line};
    }
}

void Inquiry::AddState()
{
    const std::size_t before = m_reasons.size();
    AddProblem();
    AddRefusal();
    const bool isHeld = before > 0; // by a script: nothing more is known
    if (m_reasons.size() > before || isHeld || m_snapshot.server == nullptr) {
        if (m_snapshot.server == nullptr && m_bundle.declared != nullptr &&
            m_bundle.declared->verdict != Verdict::STARTS) {
            m_reasons.push_back(ReasonOfVerdict(*m_bundle.declared));
        }
        return;
    }
    if (m_bundle.state == BundleState::UNKNOWN) {
        return; // the log no longer has it
    }
    AddStarting();
    if (m_reasons.size() == before) {
        AddHotStart();
    }
}

// The last failure in the log.
void Inquiry::AddProblem()
{
    const BundleHistory* const history = m_bundle.history;
    if (history == nullptr || !history->problem) {
        return;
    }
    const Problem& problem = *history->problem;
    if (problem.kind == Fact::HOT_START_FAILED) {
        AddHotStart();
    } else if (problem.kind != Fact::UPDATE_FAILED && m_bundle.declared != nullptr &&
               m_bundle.declared->verdict != Verdict::STARTS && m_bundle.declared->reason == problem.reason) {
        m_reasons.push_back(ReasonOfVerdict(*m_bundle.declared));
        m_reasons.back().isRecomputed = false; // the log shows the same
    } else {
        m_reasons.push_back(ReasonOfProblem(problem, m_bundle));
    }
    m_reasons.back().evidence = {problem.line};
}

void Inquiry::AddRefusal()
{
    if (m_bundle.refused == nullptr) {
        return;
    }
    const Problem& problem = m_bundle.refused->problem;
    const DeclaredBundle* const declared = m_bundle.declared;
    if (declared != nullptr && declared->verdict != Verdict::STARTS) {
        m_reasons.push_back(ReasonOfVerdict(*declared));
        m_reasons.back().isRecomputed = declared->reason != problem.reason;
    } else {
        Add("refused",
            "The server refused it " + Ago(problem.time) + ": " + problem.reason + ". Its files are in order now.",
            "refused: " + problem.reason, "touch " + m_bundle.path);
    }
    m_reasons.back().evidence = {problem.line};
}

// When a bundle comes while the server runs and fails to start, the server does not log the reason.
void Inquiry::AddHotStart()
{
    if (m_bundle.declared == nullptr) {
        return;
    }
    if (m_bundle.declared->verdict != Verdict::STARTS) {
        m_reasons.push_back(ReasonOfVerdict(*m_bundle.declared));
        m_reasons.back().isRecomputed = true;
    } else if (m_bundle.history == nullptr) {
        Add("not-loaded", "The server has not taken its directory in.", "not taken in", "touch " + m_bundle.path)
            .isRecomputed = true;
    } else {
        Add("hot-start-failed",
            "It came while the server ran, and could not be started. The log tells no reason, and its files are in "
            "order now: what it requires may have come later.",
            "start failed, no reason logged", "touch " + m_bundle.path)
            .isRecomputed = true;
    }
}

void Inquiry::AddStarting()
{
    const bool isStartUp = m_snapshot.server->isWhole && !m_snapshot.server->ready;
    const bool isRecent = m_bundle.since && m_snapshot.taken - *m_bundle.since < PATIENCE;
    if (m_bundle.state == BundleState::STARTING || m_bundle.state == BundleState::STOPPING) {
        const std::string what = m_bundle.state == BundleState::STARTING ? "started" : "stopped";
        Add("in-progress",
            "It is being " + what + (m_bundle.since ? ", since " + SpanText(m_snapshot.taken - *m_bundle.since) : "") +
                ".",
            "is being " + what);
    } else if (isStartUp) {
        Add("server-starting", "The server is still starting: it starts its bundles one after the other.",
            "the server is starting");
    } else if (isRecent && m_bundle.state != BundleState::GONE) {
        Add("in-progress", "The server is at it.", "the server is at it");
    }
}

void Inquiry::AddDirectory()
{
    if (m_bundle.isDirectoryGone && m_bundle.state != BundleState::GONE) {
        Add("directory-gone", "Its directory " + m_bundle.path + " has gone.", "directory gone",
            "bundlectl delete " + m_bundle.name);
    }
    if (m_bundle.isChanged) {
        Add("changed", "Its directory has changed since the server took it in.", "changed since load",
            "touch " + m_bundle.path);
    }
}

void Inquiry::AddMonitor()
{
    if (m_snapshot.server != nullptr && m_snapshot.server->monitor == ServerHistory::Monitor::DIED) {
        Add("monitor-dead", "The server's monitor has ended: no item is run again from now on.", "monitor dead",
            "systemctl restart bundle-server");
    }
}

void Inquiry::AddHealth()
{
    if (!m_reasons.empty() || !m_bundle.IsHealthy()) {
        return;
    }
    Reason& reason =
        Add("running",
            (m_bundle.since ? "It has run for " + SpanText(m_snapshot.taken - *m_bundle.since) : "It runs") + ".", "");
    if (m_bundle.history != nullptr) {
        reason.evidence = {m_bundle.history->stateLine};
    }
}

/// When a signal ends a server, its items may get the same signal in the server's last moments.
bool IsServersStop(const ServerHistory& server, const ItemEnd& end)
{
    constexpr std::chrono::seconds moments(2);
    return end.isSignal && end.number == SIGTERM && end.time + moments > server.last;
}

} // namespace

std::vector<Reason> ReasonsOf(const Snapshot& snapshot, const BundleStatus& bundle, bool checkFiles)
{
    return Inquiry(snapshot, bundle, checkFiles).Run();
}

std::vector<ToldEnd> LastEnds(const Snapshot& snapshot, const BundleStatus& bundle, std::size_t count)
{
    std::vector<ToldEnd> ends;
    for (const auto& server : snapshot.history.Servers()) {
        const BundleHistory* const history = server->Find(bundle.name);
        const bool hasEnded = server.get() != snapshot.server;
        for (const ItemHistory& item : history != nullptr ? history->items : std::vector<ItemHistory>()) {
            for (const ItemEnd& end : item.ends) {
                ends.push_back({item.name, end, hasEnded && IsServersStop(*server, end)});
            }
        }
    }
    std::stable_sort(ends.begin(), ends.end(),
                     [](const ToldEnd& one, const ToldEnd& other) { return one.end.time > other.end.time; });
    ends.resize(std::min(ends.size(), count));
    return ends;
}

} // namespace Model
