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

/// Follows the collection directory by scanning it, which works on every file system. The framework's own watcher uses
/// the kernel's notifications. These miss directories that are renamed in or out, and every change below an item. This
/// class raises the framework's three events, one at a time, on a thread of its own:
///
/// - added: an item has come. A directory is raised once it is complete. One that was moved in is complete at once. One
///   that is copied or unpacked in place is complete when nothing in it has changed for one scan.
/// - removed: an item has gone. Raised before the additions of the same scan, so that a rename is seen as both.
/// - modified: in a directory the manifest has changed, or a name was added, replaced or removed in the directory
///   itself, in its "bin" or in its "script"; a plain file has changed. At most once a scan for each item. Other
///   folders of a directory belong to the running items.
///
/// Additions and modifications are raised in the order in which they were made. So a required bundle may be installed
/// just before the bundle that requires it.
///
/// While the collection cannot be read, nothing is raised. The first scan after that compares with the state before.
///
/// No lock is held while an event is raised. An exception of a handler is logged and goes no further. All operations
/// may be called from any thread, also from a handler. Each path is an item's path as the events give it. Unknown paths
/// are ignored.
class BundleDirWatcher : public Poco::DirectoryWatcher {
public:
    /// Marks the current items as known and starts the thread. The first scan follows one interval later.
    /// @throws Poco::Exception path is no directory, or the framework's watcher cannot be made
    explicit BundleDirWatcher(const std::string& path, std::chrono::milliseconds interval = std::chrono::seconds(1));

    /// Waits only for a running handler. After it returns, no event is raised. A handler must not call it.
    ~BundleDirWatcher() override;

    BundleDirWatcher(const BundleDirWatcher&) = delete;
    BundleDirWatcher& operator=(const BundleDirWatcher&) = delete;

    /// Marks an item's current state as seen; no event follows. For code that has made a change itself, and for a
    /// handler before it reads the item. A directory that has replaced another one is still raised as modified.
    /// @throws std::bad_alloc the changes are raised
    void AcceptChanges(const std::string& path) { m_scan.AcceptChanges(path); }

    /// Raises an item as modified although its changes are accepted, because it differs from what the handler has read.
    /// Ignores an item that is being removed. Throws nothing.
    /// @return false when the last modification was raised for that reason, and nothing else has changed since.
    /// Otherwise an item that changes each time it is read would be raised again and again
    bool RaiseOnceMore(const std::string& path) { return m_scan.RaiseOnceMore(path); }

    /// Raises a directory as added once more, when nothing in it changes any more. For a directory that its handler
    /// could not use before and that may have been repaired since. Ignores plain files. Throws nothing.
    void RetryAdd(const std::string& path) { m_scan.RetryAdd(path); }

    /// Raises a removal again at the next scan. After ten times in a row, raises it once a minute. Stops when the
    /// directory is back. For a handler whose removal has failed; other calls do nothing. Throws nothing.
    void RetryRemoval(const std::string& path) { m_scan.RetryRemoval(path); }

    /// Whether the directory under that path is one that has been withdrawn.
    bool IsWithdrawn(const std::string& path) { return m_scan.IsWithdrawn(path); }

    /// Hides the changes of a directory that its owner is about to remove: a partial removal would look like a change.
    /// Only the end of the directory is raised. Once the removal has begun, this lasts until the directory has gone or
    /// another one has taken its place, even long after the object is destroyed.
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
    std::promise<void> m_stop; // also ends a wait that begins later
    const std::future<void> m_stopRequested = m_stop.get_future();
    CollectionScan m_scan{m_prefix};
    std::thread m_thread; // touched by the constructor and the destructor only
};

} // namespace SystemServer

#endif
