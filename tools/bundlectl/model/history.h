#ifndef BUNDLECTL_MODEL_HISTORY_H
#define BUNDLECTL_MODEL_HISTORY_H

#include "attribution.h"
#include "fact.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Model {

class LogReader;

/// A bundle's state according to the log. UNKNOWN: the log's beginning is missing, and the state has not changed since.
enum class BundleState { UNKNOWN, INSTALLED, RESOLVED, STARTING, ACTIVE, STOPPING, GONE };

BundleState StateOf(std::string_view name);
const char* NameOf(BundleState state);

/// How an item's process has ended, and how the server has handled it.
struct ItemEnd {
    enum Then { UNKNOWN, RESTS, RELAUNCHED, STOPPED };

    Time time;
    pid_t pid = 0;
    bool isSignal = false;
    int number = 0; ///< the status, or the signal
    Then then = UNKNOWN;
    std::string line;
};

/// An item of a bundle.
struct ItemHistory {
    static constexpr std::size_t KEPT_ENDS = 16;

    std::string name;
    std::uint64_t launches = 0;
    std::uint64_t relaunches = 0;
    pid_t pid = 0;             ///< of its process, or of its thread in thread mode; 0: none, or unknown
    std::optional<Time> since; ///< since when it has this pid
    std::string executed;      ///< the path that it has executed; empty: not yet, or unknown
    int executeError = 0;      ///< errno of the last execution that failed
    std::string failure;       ///< thread mode: the record of its failure
    bool hasEnded = false;     ///< thread mode: its function has returned
    bool isInManifest = true;  ///< false: an update has removed it; its process may still run
    std::string launchLine;
    std::deque<ItemEnd> ends;                       ///< the latest last
    std::map<std::string, std::uint64_t> endCounts; ///< of all ends, by "SIGSEGV" or "status 3"
    std::deque<Time> relaunchTimes;                 ///< within the last hour of the log

    std::size_t RelaunchesSince(Time time) const;
};

/// A script that was run.
struct ScriptRun {
    std::string name;
    std::string bundle;
    Time began;
    std::optional<Microseconds> took; ///< empty: its end is not in the log
    std::string line;
};

/// A failure of a bundle.
struct Problem {
    Fact::Kind kind = Fact::NONE;
    int refusal = 0; ///< of a LOAD_REFUSED: a Fact::Refusal
    Time time;
    std::string reason; ///< according to the log; empty: not logged
    std::string line;
};

/// A bundle of one server.
struct BundleHistory {
    static constexpr std::size_t KEPT_SCRIPTS = 16;

    std::string name;
    std::string path;
    std::optional<int> mode; ///< empty: unknown
    std::vector<std::string> required;
    BundleState state = BundleState::UNKNOWN;
    std::optional<Time> since; ///< of that state
    std::string stateLine;
    std::optional<Time> loaded;
    std::optional<Time> manifestRead;                ///< the one in force
    std::vector<ItemHistory> items;                  ///< in the manifest's order, as far as that is known
    std::deque<ScriptRun> scripts;                   ///< the latest last
    std::map<std::string, Microseconds> scriptTimes; ///< of all runs together, by the script's name
    std::optional<Problem> problem;                  ///< the last problem, unless the bundle has become Active since
};

/// A directory that the server has refused.
struct RefusedDirectory {
    std::string path;
    std::string bundle; ///< empty: not known at the refusal
    Problem problem;
};

/// A server, from its first available record to its last.
struct ServerHistory {
    enum class Monitor { UNKNOWN, RUNS, ENDED, DIED };

    pid_t pid = 0;
    bool isWhole = false; ///< its first record is in the log
    Time first;
    Time last;
    std::optional<Time> ready;   ///< start-up is over
    std::optional<Time> serving; ///< its socket answers
    bool hasNoService = false;
    std::string configuration;
    std::string collection;
    Monitor monitor = Monitor::UNKNOWN;
    int monitorError = 0;
    std::uint64_t lostRecords = 0;
    std::string unreadable;                          ///< why the collection cannot be read at the moment
    std::map<std::string, BundleHistory> bundles;    ///< by name; includes bundles that have gone
    std::map<std::string, RefusedDirectory> refused; ///< by path, until it is loaded
    std::map<pid_t, ScriptRun> running;              ///< scripts without an end, by the thread that waits for them

    const BundleHistory* Find(const std::string& bundle) const;
};

/// The history of bundles and items, by server. Its memory use does not grow with the length of the log.
class History {
public:
    void Take(const Fact& fact);

    /// The last server with this pid. Null when it is not in the log.
    const ServerHistory* Find(pid_t server) const;
    /// In the order of their first records. If there are many, the oldest are removed.
    const std::vector<std::unique_ptr<ServerHistory>>& Servers() const { return m_servers; }

private:
    ServerHistory& ServerOf(const Fact& fact);

    std::vector<std::unique_ptr<ServerHistory>> m_servers;
};

/// Reads a log to its end. @param attribution feeds the history, and may already know the present bundles
void ReadAll(LogReader& reader, Attribution& attribution);

} // namespace Model

#endif
