#ifndef BUNDLE_DIR_WATCHER_H
#define BUNDLE_DIR_WATCHER_H

#include "collection_scan.h"

#include <Poco/DirectoryWatcher.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>
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
///
/// No lock is held while an event is raised. What a handler throws is logged and goes no further. All operations may be
/// called from any thread, a handler included. Each path is an item's, as the events have it; unknown paths are passed
/// over.
class BundleDirWatcher : public Poco::DirectoryWatcher {
public:
    /// Takes what is there as known and starts the thread; the first scan follows one interval later.
    /// @throws Poco::Exception path is no directory, or the framework's watcher cannot be made
    explicit BundleDirWatcher(const std::string& path, std::chrono::milliseconds interval = std::chrono::seconds(1));

    /// Waits for a handler that runs, and for nothing else. No event is raised any more when it returns. Not called by
    /// a handler.
    ~BundleDirWatcher() override;

    BundleDirWatcher(const BundleDirWatcher&) = delete;
    BundleDirWatcher& operator=(const BundleDirWatcher&) = delete;

    /// Marks an item's current state as seen; no event follows. For the author of a change, and for a handler before it
    /// reads the item. A directory that has been replaced by another is no such change: it is raised as modified all
    /// the same.
    /// @throws std::bad_alloc the changes are raised
    void AcceptChanges(const std::string& path) { m_scan.AcceptChanges(path); }

    /// Raises an item as modified although its changes are accepted, because it is not as it was taken in. An item that
    /// is being removed is passed over. Throws nothing.
    /// @return false when the last modification was raised for that reason, and nothing else has changed since: an item
    /// that changes each time it is taken in would be raised again and again
    bool RaiseOnceMore(const std::string& path) { return m_scan.RaiseOnceMore(path); }

    /// Raises a directory as added once more, when it has come to rest. For a directory with a change that its handler
    /// could not use: it may have been mended. Plain files are passed over. Throws nothing.
    void RetryAdd(const std::string& path) { m_scan.RetryAdd(path); }

    /// Raises a removal again at the next scan; after ten times in a row once a minute, and no more when the directory
    /// is back. For the handler of a removal that could not deal with it. Other calls do nothing. Throws nothing.
    void RetryRemoval(const std::string& path) { m_scan.RetryRemoval(path); }

    /// Whether the directory under that path is one that has been withdrawn.
    bool IsWithdrawn(const std::string& path) { return m_scan.IsWithdrawn(path); }

    /// Keeps a directory that its owner is about to remove from being raised, by anything but its end: half of it would
    /// look like a change. When the removal has begun, this holds until the directory has gone or another one has come
    /// to its place, also when that is long after the life of the object.
    class Withdrawal {
    public:
        /// @param watcher outlives the object
        /// @throws std::bad_alloc the directory is followed as before
        Withdrawal(BundleDirWatcher& watcher, std::string path);
        /// Unless the removal has begun, the directory is followed as before.
        ~Withdrawal();
        Withdrawal(const Withdrawal&) = delete;
        Withdrawal& operator=(const Withdrawal&) = delete;

        /// From now on anything in the directory may have been removed.
        void Begin() { m_hasBegun = true; }

    private:
        CollectionScan& m_scan;
        const std::string m_path;
        bool m_hasBegun = false;
    };

private:
    using Clock = std::chrono::steady_clock;

    BundleDirWatcher(const std::string& path, std::chrono::milliseconds interval,
                     const std::vector<int>& othersDescriptors);

    void Follow(Clock::time_point firstScan);
    void RaiseChanges();
    bool WaitUntil(Clock::time_point time) const;
    bool LetSettle(const CollectionChange& change) const;
    void Raise(CollectionChange::Kind kind, const Poco::File& file);

    const std::string m_prefix; // of an item's path, ending in "/"
    const std::chrono::milliseconds m_interval;
    std::promise<void> m_stop; // ends a wait that begins later, too
    const std::future<void> m_stopRequested = m_stop.get_future();
    CollectionScan m_scan{m_prefix};
    std::thread m_thread; // touched by the constructor and the destructor only
};

} // namespace SystemServer

#endif
