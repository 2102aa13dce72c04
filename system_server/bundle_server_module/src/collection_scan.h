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
    std::int64_t time = 0; ///< when it was made, nanoseconds since 1970; 0 when that is unknown
    bool isRetry = false;  ///< of a removal
};

/// What is known of a collection directory, and what has changed since. A scan compares the two and finds changes; a
/// change becomes known when it is taken, just before it is raised. In between, its handler's turn may take long to
/// come.
///
/// Find, Take, EndRemoval and CountNames are called by one thread, the others by any. A lock of its own is held for
/// each call, never longer. Each path is an item's: the prefix and the name. Unknown paths are passed over.
class CollectionScan {
public:
    using Changes = std::vector<CollectionChange>;

    /// Knows nothing yet: the first call of Find takes what is there as known.
    /// @param prefix of the items' paths, ending in "/"
    explicit CollectionScan(std::string prefix) : m_prefix(std::move(prefix)) {}

    /// Makes a scan that is under way, and each later one, end early with nothing or a part of the changes.
    void Stop() { m_stopping = true; }

    /// Scans the collection. Nothing of what is found counts as known afterwards. Logs when the collection cannot be
    /// read, and when it can be read again; there are no changes in between.
    /// @return removals first, then plain files, then directories in the order in which they were changed
    /// @throws std::bad_alloc what was found is found again
    Changes Find();

    /// Marks a change as known. What is done to the item from now on is a change of its own.
    /// @return false when there is no longer anything to raise: the item has gone, a copy or removal of it has gone on,
    /// or the change has been accepted
    /// @throws std::bad_alloc the change is found again
    bool Take(const CollectionChange& change);

    /// The handler of a removal has returned. Unless it has asked for another try, the removal is over. Logs how often
    /// it will be tried.
    void EndRemoval(const std::string& name);

    /// Counts the names in some of the items that were there at the first scan, where that is still to be done. It
    /// takes too long for the start. Until then a removal of names from an item counts as any other change.
    void CountNames();

    // The operations of BundleDirWatcher, which says what they do.
    void AcceptChanges(const std::string& path);
    bool RaiseOnceMore(const std::string& path);
    void RetryAdd(const std::string& path);
    void RetryRemoval(const std::string& path);
    bool IsWithdrawn(const std::string& path);

    /// From now on nothing is found of this directory but its end.
    /// @throws std::bad_alloc the directory is followed as before
    void Withdraw(const std::string& path);
    /// @param hasBegun whether anything may have been removed; otherwise the directory is followed as before
    /// @throws std::bad_alloc the next scan finds out what has become of the directory
    void EndWithdrawal(const std::string& path, bool hasBegun);

private:
    struct Entry {
        explicit Entry(WatchedItem what) : item(std::move(what)) {}

        WatchedItem item;
        std::uint64_t lastScan = 0; // that has seen it
    };

    void ScanEntries(Changes& changes) REQUIRES(m_mutex);
    void ScanEntry(int collection, const char* name, unsigned char type, Changes& changes) REQUIRES(m_mutex);
    void FindGone(int collection, Changes& changes) REQUIRES(m_mutex);
    bool HasGone(int collection, const std::string& name, WatchedItem& item) REQUIRES(m_mutex);
    void LogReadability(int error) REQUIRES(m_mutex);
    std::string_view NameOf(const std::string& path) const;
    WatchedItem* FindItem(const std::string& path) REQUIRES(m_mutex);

    const std::string m_prefix; // made the way the manager makes its bundles' paths
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
