#ifndef COLLECTION_SCAN_H
#define COLLECTION_SCAN_H

#include "item_fingerprint.h"
#include "removal_tries.h"
#include "thread_annotations.h"
#include "watched_item.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace SystemServer {

/// A change in the collection that a scan has found.
struct CollectionChange {
    enum class Kind { REMOVED, ADDED, MODIFIED };

    Kind kind;
    std::string name; ///< in the collection
    bool isDirectory;
    std::int64_t time = 0; ///< when it was made, nanoseconds since 1970; 0: unknown
    bool isRetry = false;  ///< a removal that is raised again
};

/// The known state of a collection directory. A scan compares the directory with it and finds changes. A change becomes
/// known when it is taken, just before it is raised. It may wait long for its handler's turn.
///
/// Find, Take, EndRemoval and CountNames are called by one thread, the others by any. Each call holds a lock of its
/// own, never longer. Each path is an item's: the prefix and the name. Unknown paths are ignored.
class CollectionScan {
public:
    using Changes = std::vector<CollectionChange>;

    /// Knows nothing yet: the first call of Find marks the current items as known.
    /// @param prefix of the items' paths, ending in "/"
    explicit CollectionScan(std::string prefix) : m_prefix(std::move(prefix)) {}

    /// Makes the running scan and each later one end early, with none or some of the changes.
    void Stop() { m_stopping = true; }

    /// Scans the collection. The changes that it finds are not known yet. Logs when the collection cannot be read, and
    /// when it can be read again. In between it finds no changes.
    /// @return removals first, then plain files, then directories in the order in which they were changed
    /// @throws std::bad_alloc the next scan finds the changes again
    Changes Find();

    /// Marks a change as known. Whatever happens to the item later is a new change.
    /// @return false when nothing is to be raised any more: the item has gone, its copying or removal has continued, or
    /// the change has been accepted
    /// @throws std::bad_alloc the change is found again
    bool Take(const CollectionChange& change);

    /// Called when the handler of a removal has returned. Unless it has asked for another try, the removal is over.
    /// Logs how often it will be tried.
    void EndRemoval(const std::string& name);

    /// Counts the names in some of the items of the first scan that have not been counted yet. Counting takes too long
    /// for the start. Until then, a removal of names from an item counts as any other change.
    void CountNames();

    // The operations of BundleDirWatcher, which says what they do.
    void AcceptChanges(const std::string& path);
    bool RaiseOnceMore(const std::string& path);
    void RetryAdd(const std::string& path);
    void RetryRemoval(const std::string& path);
    bool IsWithdrawn(const std::string& path);

    /// From now on, a scan finds only the end of this directory.
    /// @throws std::bad_alloc the directory is followed as before
    void Withdraw(const std::string& path);
    /// @param hasBegun whether anything may have been removed; otherwise the directory is followed as before
    /// @throws std::bad_alloc the next scan finds the directory's new state
    void EndWithdrawal(const std::string& path, bool hasBegun);

private:
    struct Entry {
        explicit Entry(WatchedItem what) : item(std::move(what)) {}

        WatchedItem item;
        std::uint64_t lastScan = 0; // the last scan that has seen it
    };

    void ScanEntries(Changes& changes) REQUIRES(m_mutex);
    void ScanEntry(int collection, const char* name, unsigned char type, Changes& changes) REQUIRES(m_mutex);
    void FindGone(int collection, Changes& changes) REQUIRES(m_mutex);
    bool HasGone(int collection, const std::string& name, WatchedItem& item) REQUIRES(m_mutex);
    void LogReadability(int error) REQUIRES(m_mutex);
    std::string_view NameOf(const std::string& path) const;
    WatchedItem* FindItem(const std::string& path) REQUIRES(m_mutex);

    const std::string m_prefix; // built like the manager's bundle paths
    std::atomic<bool> m_stopping{false};

    std::mutex m_mutex;
    std::map<std::string, Entry, std::less<>> m_items GUARDED_BY(m_mutex); // by name
    RemovalTries m_removals GUARDED_BY(m_mutex);
    bool m_areNamesCounted GUARDED_BY(m_mutex) = false;
    std::uint64_t m_scan GUARDED_BY(m_mutex) = 0; // number of the last one
    bool m_isReadable GUARDED_BY(m_mutex) = true;
    Fingerprinter m_fingerprinter GUARDED_BY(m_mutex){m_stopping};
};

} // namespace SystemServer

#endif
