#ifndef BUNDLE_DIR_WATCHER_H
#define BUNDLE_DIR_WATCHER_H

#include "item_fingerprint.h"
#include "known_item.h"
#include "thread_annotations.h"

#include <Poco/DirectoryWatcher.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <mutex>
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

    /// Raises a directory as added once more, when it has come to rest. For one of which a change was raised that
    /// nobody could take: it may have been mended. Any thread. Plain files and unknown items are passed over. Throws
    /// nothing.
    void OfferAgain(const std::string& path);

private:
    friend class ScanTimer; // measures what one scan costs

    using Clock = std::chrono::steady_clock;

    struct Item {
        bool isDirectory = false;
        bool isRaised = false;  // as added, or there from the beginning: its end is an event
        bool isArriving = true; // to be raised as added when it is complete
        KnownItem known;        // as raised; of the last scan, while it is arriving
        TreeFingerprint tree;   // of the last scan, while it is arriving
        std::uint64_t lastScan = 0;
    };

    struct Change {
        DirectoryEventType type;
        std::string name;
        bool isDirectory;
        std::int64_t time; // when it was made, nanoseconds; 0 when that cannot be told
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
    bool HasArrived(int collection, const std::string& name, Item& item) REQUIRES(m_mutex);
    void FindGone(int collection, Changes& changes) REQUIRES(m_mutex);
    void NoteReadable(int error) REQUIRES(m_mutex);
    bool Take(const Change& change);
    bool IsToBeRaised(const Change& change, Item& item) REQUIRES(m_mutex);
    void Raise(DirectoryEventType type, const Poco::File& file) EXCLUDES(m_mutex);
    ItemFingerprint FingerprintOf(int directory, const std::string& path, const Item& item) REQUIRES(m_mutex);
    Item* FindItem(const std::string& path) REQUIRES(m_mutex);

    const std::string m_prefix; // of an item's path, ending in "/": made the way the manager makes its bundles' paths
    const std::chrono::milliseconds m_interval;
    std::atomic<bool> m_stopping{false};
    std::promise<void> m_stop; // ends a wait that begins later, too
    const std::future<void> m_stopRequested = m_stop.get_future();

    mutable std::mutex m_mutex;                                           // never held while an event is raised
    std::map<std::string, Item, std::less<>> m_items GUARDED_BY(m_mutex); // by name
    std::uint64_t m_scan GUARDED_BY(m_mutex) = 0;                         // number of the last one
    bool m_isReadable GUARDED_BY(m_mutex) = true;
    Fingerprinter m_fingerprinter GUARDED_BY(m_mutex){m_stopping};
    std::thread m_thread; // touched by the constructor and the destructor only
};

} // namespace SystemServer

#endif
