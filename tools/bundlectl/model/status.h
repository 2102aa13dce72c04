#ifndef BUNDLECTL_MODEL_STATUS_H
#define BUNDLECTL_MODEL_STATUS_H

#include "collection.h"
#include "history.h"
#include "installation.h"
#include "processes.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Model {

/// Everything that is known at one moment.
struct Snapshot {
    Time taken;
    Installation installation;
    Collection collection;
    History history;
    const ServerHistory* server =
        nullptr; ///< of the running server; null: it does not run, or the log has nothing of it
    std::vector<BundleProcess> processes;
    std::vector<ProcessStat> threads; ///< of the server
    std::vector<std::string> notes;   ///< sentences for people: what could not be seen
};

/// Which part of the log a snapshot needs.
enum class LogDepth {
    NOTHING,
    SERVER,    ///< from the start of the running server on
    EVERYTHING ///< with the old files: former servers too
};

/// Looks at all there is. Neither waits nor writes.
std::unique_ptr<Snapshot> TakeSnapshot(const Choice& choice, LogDepth depth, const Proc& proc = Proc());

/// An item at that moment.
struct ItemStatus {
    enum Up {
        DOWN,
        UP,
        ACTIVATED, ///< thread mode: its function has returned, and what it has set up may run on
        UNKNOWN,   ///< the log does not tell, and its process cannot be seen
    };

    std::string name;
    Up up = UNKNOWN;
    pid_t pid = 0; ///< of its process, or of its thread; 0: it has none, or that is unknown
    bool isThread = false;
    const BundleProcess* process = nullptr; ///< null: a thread, or not seen
    const ProcessStat* thread = nullptr;
    const ItemHistory* history = nullptr; ///< null: the log has nothing of it
    std::vector<pid_t> further;           ///< processes that run the same item: it runs twice
    std::size_t relaunches = 0;           ///< in the last hour
    bool isCrashLooping = false;
};

/// A bundle at that moment, or a directory that was not taken in.
struct BundleStatus {
    std::string name; ///< empty: its manifest does not give it
    std::string path;
    std::optional<int> mode;
    BundleState state = BundleState::UNKNOWN;
    std::optional<Time> since;
    const DeclaredBundle* declared = nullptr;  ///< null: its directory has gone
    const BundleHistory* history = nullptr;    ///< null: the log has nothing of it
    const RefusedDirectory* refused = nullptr; ///< not null: the running server has not taken it in
    std::vector<ItemStatus> items;
    std::size_t itemsUp = 0;
    std::size_t relaunches = 0; ///< of all items in the last hour
    bool isCrashLooping = false;
    bool isDirectoryGone = false;
    bool isChanged = false;         ///< its directory has changed since the server took it in
    bool isProgramReplaced = false; ///< an item runs a program file that is no longer there
    bool runsTwice = false;

    /// Active with all of its items up, each once, and none of them dying all the time.
    bool IsHealthy() const;
};

/// The bundles that the server knows and the directories that are there, by name and then by path.
std::vector<BundleStatus> StatusOf(const Snapshot& snapshot);

} // namespace Model

#endif
