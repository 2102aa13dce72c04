#ifndef BUNDLE_DIR_WATCHER_H
#define BUNDLE_DIR_WATCHER_H

#include "item_fingerprint.h"
#include "removal_tries.h"
#include "thread_annotations.h"
#include "watched_item.h"

#include <Poco/DirectoryWatcher.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace SystemServer {

/// Follows the collection directory by looking at it, which works on every file system: what the framework's own
/// watcher is told by the kernel leaves out directories that are renamed in or out, and every change below an item. It
/// raises the framework's three events, one at a time on a thread of its own:
///
/// - added: an item has come. A directory counts as having come once it is complete: at once when it was moved in, and
///   when nothing in it has changed for one scan when it is being copied or unpacked in place.
/// - removed: an item has gone. Raised before the additions of the same scan, so that a rename is seen as both.
/// - modified: in a directory the manifest has changed, or a name was added, replaced or removed in the directory
///   itself, in its "bin" or in its "script"; a plain file has changed. Once a scan, however much has changed. Other
///   folders of a directory are the running items' own.
///
/// Additions and modifications are raised in the order in which they were made, so that what is required may be
/// installed just before what requires it.
///
/// While the collection cannot be read nothing is raised; what is there afterwards is compared with what was there
/// before.
class BundleDirWatcher : public Poco::DirectoryWatcher {
public:
    /// Takes what is there as known and starts the thread; the first scan follows one interval later.
    /// @throws Poco::Exception path is no directory, or the framework's watcher cannot be made
    explicit BundleDirWatcher(const std::string& path, std::chrono::milliseconds interval = std::chrono::seconds(1));

    /// Waits for a handler that runs, and for nothing else. No event is raised any more when it returns.
    ~BundleDirWatcher() override;

    BundleDirWatcher(const BundleDirWatcher&) = delete;
    BundleDirWatcher& operator=(const BundleDirWatcher&) = delete;

    /// Takes what has changed in an item up to now for known. For whoever has changed it himself, and for a handler
    /// before it reads the item. A directory that has been replaced by another is no such change: it is raised as
    /// modified all the same. Any thread. Unknown items are passed over.
    void AcceptChanges(const std::string& path);

    /// Raises an item as modified although its changes are accepted, because it is not as it was taken in. False when
    /// the last modification was raised for that reason, and nothing else has changed since: an item that changes each
    /// time it is taken in would be raised without an end. Any thread. Unknown items and those that are being removed
    /// are passed over. Throws nothing.
    bool RaiseOnceMore(const std::string& path);

    /// Raises a directory as added once more, when it has come to rest. For one of which a change was raised that
    /// nobody could take: it may have been mended. Any thread. Plain files and unknown items are passed over. Throws
    /// nothing.
    void OfferAgain(const std::string& path);

    /// Raises a removal again at the next scan; after ten times in a row once a minute, and no more when the directory
    /// is back. For the handler of a removal that could not deal with it. Other calls do nothing. Throws nothing.
    void RetryRemoval(const std::string& path);

    /// Keeps a directory from being raised, by anything but its end, that its owner is about to remove: half of it
    /// would look like a change. When the removal has begun, this holds until the directory has gone or another one has
    /// come to its place, also when that is long after the life of the object. Any thread.
    class Withdrawal {
    public:
        Withdrawal(BundleDirWatcher& watcher, std::string path);
        /// Unless the removal has begun, the directory is followed as before.
        ~Withdrawal();
        Withdrawal(const Withdrawal&) = delete;
        Withdrawal& operator=(const Withdrawal&) = delete;

        void Begin() { m_hasBegun = true; }

    private:
        BundleDirWatcher& m_watcher;
        const std::string m_path;
        bool m_hasBegun = false;
    };

    /// Whether the directory under that path is one that has been withdrawn. Any thread.
    bool IsWithdrawn(const std::string& path);

private:
    friend class ScanTimer; // measures what one scan costs

    using Clock = std::chrono::steady_clock;

    struct Entry {
        explicit Entry(WatchedItem what) : item(std::move(what)) {}

        WatchedItem item;
        std::uint64_t lastScan = 0; // that has seen it
    };

    struct Change {
        DirectoryEventType type;
        std::string name;
        bool isDirectory;
        std::int64_t time = 0; // when it was made, nanoseconds; 0 when that cannot be told
        bool isRetry = false;  // of a removal
    };
    using Changes = std::vector<Change>;

    BundleDirWatcher(const std::string& path, std::chrono::milliseconds interval,
                     const std::vector<int>& othersDescriptors);

    void Follow(Clock::time_point firstScan);
    void RaiseChanges();
    bool WaitUntil(Clock::time_point time) const;
    bool LetSettle(const Change& change);
    Changes Scan();
    void LookAtAll(Changes& changes) REQUIRES(m_mutex);
    void LookAt(int collection, const char* name, unsigned char type, Changes& changes) REQUIRES(m_mutex);
    void FindGone(int collection, Changes& changes) REQUIRES(m_mutex);
    bool HasGone(int collection, const std::string& name, WatchedItem& item) REQUIRES(m_mutex);
    void NoteReadable(int error) REQUIRES(m_mutex);
    bool Take(const Change& change);
    void Raise(DirectoryEventType type, const Poco::File& file) EXCLUDES(m_mutex);
    void EndRemoval(const std::string& name);
    void CountNames();
    void Withdraw(const std::string& path);
    void EndWithdrawal(const std::string& path, bool hasBegun);
    std::string_view NameOf(const std::string& path) const;
    WatchedItem* FindItem(const std::string& path) REQUIRES(m_mutex);

    const std::string m_prefix; // of an item's path, ending in "/": made the way the manager makes its bundles' paths
    const std::chrono::milliseconds m_interval;
    std::atomic<bool> m_stopping{false};
    std::promise<void> m_stop; // ends a wait that begins later, too
    const std::future<void> m_stopRequested = m_stop.get_future();

    mutable std::mutex m_mutex;                                            // never held while an event is raised
    std::map<std::string, Entry, std::less<>> m_items GUARDED_BY(m_mutex); // by name
    RemovalTries m_removals GUARDED_BY(m_mutex);
    bool m_areNamesCounted GUARDED_BY(m_mutex) = false;
    std::uint64_t m_scan GUARDED_BY(m_mutex) = 0; // number of the last one
    bool m_isReadable GUARDED_BY(m_mutex) = true;
    Fingerprinter m_fingerprinter GUARDED_BY(m_mutex){m_stopping};
    std::thread m_thread; // touched by the constructor and the destructor only
};

} // namespace SystemServer

#endif
