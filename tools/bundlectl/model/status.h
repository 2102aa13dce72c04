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
        nullptr; ///< the history of the running server; null: no server runs, or the log has no record of it
    std::vector<BundleProcess> processes;
    std::vector<ProcessStat> threads; ///< the server's threads
    std::vector<std::string> notes;   ///< sentences for people about what could not be read

    /// Otherwise a note says why not.
    bool IsCollectionRead() const { return !collection.path.empty() && collection.trouble.empty(); }
};

/// Which part of the log a snapshot needs.
enum class LogDepth {
    NOTHING,
    SERVER,    ///< from the start of the running server on
    EVERYTHING ///< with the old files: also former servers
};

/// Reads everything. Neither waits nor writes.
std::unique_ptr<Snapshot> TakeSnapshot(const Choice& choice, LogDepth depth, const Proc& proc = Proc());

/// An item at that moment.
struct ItemStatus {
    enum Up {
        DOWN,
        UP,
        ACTIVATED, ///< thread mode: its function has returned, and its other threads may still run
        UNKNOWN,   ///< the log does not show it, and its process cannot be read
    };

    std::string name;
    Up up = UNKNOWN;
    pid_t pid = 0; ///< of its process, or of its thread; 0: none, or unknown
    bool isThread = false;
    const BundleProcess* process = nullptr; ///< null: a thread, or not seen
    const ProcessStat* thread = nullptr;
    const ItemHistory* history = nullptr; ///< null: the log has nothing of it
    std::vector<pid_t> further;           ///< processes that run the same item: it runs twice
    std::size_t relaunches = 0;           ///< in the last hour
    bool isCrashLooping = false;
};

/// A bundle at that moment, or a directory that was not loaded.
struct BundleStatus {
    std::string name; ///< empty: not in the manifest
    std::string path;
    std::optional<int> mode;
    BundleState state = BundleState::UNKNOWN;
    std::optional<Time> since;
    const DeclaredBundle* declared = nullptr;  ///< null: the directory has gone
    const BundleHistory* history = nullptr;    ///< null: the log has nothing of it
    const RefusedDirectory* refused = nullptr; ///< not null: the running server has refused it
    std::vector<ItemStatus> items;
    std::size_t itemsUp = 0;
    std::size_t relaunches = 0; ///< of all items in the last hour
    bool isCrashLooping = false;
    bool isDirectoryGone = false;
    bool isChanged = false;         ///< its directory has changed since the server read it
    bool isProgramReplaced = false; ///< an item runs a program file that no longer exists
    bool runsTwice = false;

    /// Active, all of its items are up, each once, and none is in a crash loop.
    bool IsHealthy() const;
};

/// The bundles that the server knows and the existing directories, by name and then by path.
std::vector<BundleStatus> StatusOf(const Snapshot& snapshot);

} // namespace Model

#endif
