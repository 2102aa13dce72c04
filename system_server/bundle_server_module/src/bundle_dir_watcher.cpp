#include "bundle_dir_watcher.h"

#include "bundle_log.h"
#include "child_process.h"
#include "common/unique_fd.h"
#include "dir_stream.h"
#include "framework_watcher.h"

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Path.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>
#include <string_view>
#include <tuple>
#include <utility>

namespace SystemServer {

using Common::UniqueFd;

namespace {

/// A change younger than this may be half of one: an editor empties a file before it writes it. It is also several
/// times the tick of the kernel's clock, within which a second change could look like the first.
constexpr std::chrono::milliseconds SETTLING_TIME(50);

std::string DirectoryPrefix(const std::string& path)
{
    Poco::Path prefix(path);
    prefix.makeDirectory();
    return prefix.toString();
}

/// What a name stands for. A failing disk or an absent server leaves it unknown, which is no reason to stop a bundle.
enum class Kind { ABSENT, DIRECTORY, OTHER, UNKNOWN };

Kind KindOfMode(mode_t mode)
{
    return S_ISDIR(mode) ? Kind::DIRECTORY : Kind::OTHER;
}

// A link counts as what it leads to; one that leads nowhere is there all the same, but no directory.
Kind KindAt(int directory, const char* path)
{
    struct stat status {};
    if (fstatat(directory, path, &status, 0) == 0) {
        return KindOfMode(status.st_mode);
    }
    if (MeansAbsence(errno) && fstatat(directory, path, &status, AT_SYMLINK_NOFOLLOW) == 0) {
        return KindOfMode(status.st_mode);
    }
    return MeansAbsence(errno) ? Kind::ABSENT : Kind::UNKNOWN;
}

Kind KindOfEntry(int directory, const char* name, unsigned char type)
{
    if (type == DT_LNK || type == DT_UNKNOWN) {
        return KindAt(directory, name);
    }
    return type == DT_DIR ? Kind::DIRECTORY : Kind::OTHER;
}

} // namespace

BundleDirWatcher::BundleDirWatcher(const std::string& path, std::chrono::milliseconds interval)
    : BundleDirWatcher(path, interval, InotifyDescriptors())
{}

BundleDirWatcher::BundleDirWatcher(const std::string& path, std::chrono::milliseconds interval,
                                   const std::vector<int>& othersDescriptors)
    : DirectoryWatcher(path, DW_ITEM_ADDED | DW_ITEM_REMOVED | DW_ITEM_MODIFIED, 1), m_prefix(DirectoryPrefix(path)),
      m_interval(interval)
{
    const TerminationSignalsBlocked blocked; // for both threads: the framework's blocks them only once it has begun
    std::vector<UniqueFd> detached = DetachInotify(othersDescriptors);
    stop(); // the framework's thread
    LeaveThreadToJoin(*this);
    Scan();
    m_thread = std::thread([this, firstScan = Clock::now() + m_interval, detached = std::move(detached)]() mutable {
        detached.clear();
        Follow(firstScan);
    });
}

BundleDirWatcher::~BundleDirWatcher()
{
    m_stopping = true; // for a scan under way, which ends early
    m_stop.set_value();
    m_thread.join();
}

void BundleDirWatcher::Follow(Clock::time_point firstScan)
{
    prctl(PR_SET_NAME, "bundle_watcher");
    for (auto next = firstScan; WaitUntil(next);) {
        // From now on, not from when this scan was due: what stands still for a scan stands still for that long.
        next = Clock::now() + m_interval;
        try {
            RaiseChanges();
        } catch (const std::exception& e) { // out of memory; what has not been raised is found again
            BUNDLE_ERROR("bundle collection dir[%s] can not be followed: %s. The next look at it tries again.",
                         m_prefix.c_str(), ReasonOf(e).c_str());
        }
    }
}

void BundleDirWatcher::RaiseChanges()
{
    for (const Change& change : Scan()) {
        if (!LetSettle(change)) {
            return;
        }
        const Poco::File item(m_prefix + change.name); // made before the change counts as raised, for this may fail
        if (Take(change)) {
            Raise(change.type, item);
        }
    }
}

// False when the watcher is being destroyed.
bool BundleDirWatcher::WaitUntil(Clock::time_point time) const
{
    return m_stopRequested.wait_until(time) == std::future_status::timeout;
}

// False when the watcher is being destroyed.
bool BundleDirWatcher::LetSettle(const Change& change)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const std::chrono::nanoseconds age(Nanoseconds(now) - change.time);
    const bool isYoung = age.count() >= 0 && age < SETTLING_TIME;
    return isYoung ? WaitUntil(Clock::now() + SETTLING_TIME - age) : !m_stopping;
}

// What is to be raised, in order. Nothing counts as raised yet: a handler may take long, and what has become of an item
// by the time its turn comes is looked at then.
BundleDirWatcher::Changes BundleDirWatcher::Scan()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    Changes changes;
    LookAtAll(changes);
    // Removals first: a bundle that is renamed would otherwise be refused as a duplicate of itself. Then plain files,
    // which are soon dealt with.
    std::sort(changes.begin(), changes.end(), [](const Change& one, const Change& other) {
        const auto rank = [](const Change& change) {
            return std::make_tuple(change.type != DW_ITEM_REMOVED, change.isDirectory, change.time,
                                   std::ref(change.name));
        };
        return rank(one) < rank(other);
    });
    return changes;
}

void BundleDirWatcher::LookAtAll(Changes& changes)
{
    ++m_scan;
    const DirStream collection(opendir(m_prefix.c_str()));
    if (!collection) {
        NoteReadable(errno);
        return;
    }
    const int descriptor = dirfd(collection.get());
    for (;;) {
        errno = 0;
        const dirent* const entry = readdir(collection.get());
        if (entry == nullptr || m_stopping) {
            break;
        }
        const char* const name = entry->d_name;
        if (std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0) {
            LookAt(descriptor, name, entry->d_type, changes);
        }
    }
    const int error = errno;
    NoteReadable(error);
    if (error != 0) {
        changes.clear();
    } else if (!m_stopping) {
        FindGone(descriptor, changes);
    }
}

void BundleDirWatcher::LookAt(int collection, const char* name, unsigned char type, Changes& changes)
{
    const Kind kind = KindOfEntry(collection, name, type);
    auto position = m_items.find(name);
    if (kind == Kind::ABSENT || kind == Kind::UNKNOWN) {
        return; // what it was is told apart when those that have gone are looked for
    }
    const bool isDirectory = kind == Kind::DIRECTORY;
    if (position == m_items.end()) {
        position = m_items.emplace(name, Item()).first;
        Item& item = position->second;
        item.isDirectory = isDirectory;
        if (m_scan == 1) { // there from the beginning
            item.isRaised = true;
            item.isArriving = false;
            item.known.Learn(m_prefix + name, FingerprintOf(collection, position->first, item));
            item.lastScan = m_scan;
            return;
        }
    }
    Item& item = position->second;
    if (item.isDirectory != isDirectory) {
        return; // another thing under the same name: the old one has gone, the next scan finds the new one
    }
    item.lastScan = m_scan;
    if (item.isArriving) {
        if (HasArrived(collection, position->first, item)) {
            const std::int64_t newest = std::max(item.tree.newestChange, item.known.Fingerprint()[ROOT].changed);
            changes.push_back({DW_ITEM_ADDED, name, isDirectory, newest});
        }
    } else {
        const ItemFingerprint fingerprint = FingerprintOf(collection, position->first, item);
        if (fingerprint != item.known.Fingerprint() && item.known.HasChanged(m_prefix + name, fingerprint)) {
            changes.push_back({DW_ITEM_MODIFIED, name, isDirectory, NewestChange(fingerprint)});
        }
    }
}

// A directory that was moved in was complete when it came: the move is the latest change of its inode, later than that
// of its content, and nothing below has changed since. That can be told only when it is seen for the first time; later,
// or without a manifest, the same signs are those of a copy whose beginning has set its owner or mode. Whatever was not
// moved in must have stood still for one scan.
bool BundleDirWatcher::HasArrived(int collection, const std::string& name, Item& item)
{
    const ItemFingerprint fingerprint = FingerprintOf(collection, name, item);
    if (!item.isDirectory) {
        item.known.SetFingerprint(fingerprint);
        return true;
    }
    const TreeFingerprint tree = m_fingerprinter.OfTree(m_prefix + name, item.isRaised);
    const FileFingerprint& root = fingerprint[ROOT];
    const bool wasMovedIn = !root.IsSameFile(item.known.Fingerprint()[ROOT]) && fingerprint[MANIFEST].inode != 0 &&
                            root.changed > root.modified && root.changed > tree.newestChange;
    const bool stoodStill = fingerprint == item.known.Fingerprint() && tree == item.tree;
    item.known.SetFingerprint(fingerprint);
    item.tree = tree;
    return wasMovedIn || stoodStill;
}

void BundleDirWatcher::FindGone(int collection, Changes& changes)
{
    for (auto position = m_items.begin(); position != m_items.end();) {
        const auto& [name, item] = *position;
        bool isGone = false;
        if (item.lastScan != m_scan) {
            // Asked for by name: a listing may leave out what is there while others come and go.
            const Kind kind = KindAt(collection, name.c_str());
            isGone = kind != Kind::UNKNOWN && kind != (item.isDirectory ? Kind::DIRECTORY : Kind::OTHER);
        }
        if (isGone && !item.isRaised) {
            position = m_items.erase(position);
            continue;
        }
        if (isGone) {
            changes.push_back({DW_ITEM_REMOVED, name, item.isDirectory, 0});
        }
        ++position;
    }
}

void BundleDirWatcher::NoteReadable(int error)
{
    const bool isReadable = error == 0;
    if (isReadable == m_isReadable) {
        return;
    }
    m_isReadable = isReadable;
    if (isReadable) {
        BUNDLE_INFO("bundle collection dir[%s] can be read again.", m_prefix.c_str());
    } else {
        BUNDLE_ERROR("bundle collection dir[%s] can not be read: %s. Its bundles stay as they are until it is back.",
                     m_prefix.c_str(), std::strerror(error));
    }
}

// Makes the change the watcher's own knowledge, just before it is raised: what is done to the item while its handler
// runs is a change of its own. False when there is no longer anything to raise.
bool BundleDirWatcher::Take(const Change& change)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto position = m_items.find(change.name); // there: only this thread takes items away
    Item& item = position->second;
    if (change.type == DW_ITEM_REMOVED) {
        m_items.erase(position);
        return true;
    }
    if (!IsToBeRaised(change, item)) {
        return false;
    }
    item.isArriving = false;
    item.isRaised = true;
    item.tree = TreeFingerprint();
    return true;
}

// Not when the item has gone, when a copy into it has begun or gone on, or when somebody has accepted the change.
bool BundleDirWatcher::IsToBeRaised(const Change& change, Item& item)
{
    const std::string path = m_prefix + change.name;
    if (KindAt(AT_FDCWD, path.c_str()) != (item.isDirectory ? Kind::DIRECTORY : Kind::OTHER)) {
        return false; // the next scan sees what has become of it
    }
    const ItemFingerprint fingerprint = FingerprintOf(AT_FDCWD, path, item);
    if (change.type == DW_ITEM_MODIFIED && !item.known.HasChanged(path, fingerprint)) {
        return false;
    }
    const auto standsStill = [&] {
        return fingerprint == item.known.Fingerprint() && m_fingerprinter.OfTree(path, item.isRaised) == item.tree;
    };
    if (change.type == DW_ITEM_ADDED && item.isDirectory && !standsStill()) {
        return false;
    }
    item.known.Learn(path, fingerprint);
    return true;
}

void BundleDirWatcher::Raise(DirectoryEventType type, const Poco::File& file)
{
    const DirectoryEvent event(file, type);
    try {
        switch (type) {
        case DW_ITEM_ADDED:
            itemAdded(this, event);
            break;
        case DW_ITEM_REMOVED:
            itemRemoved(this, event);
            break;
        default:
            itemModified(this, event);
            break;
        }
    } catch (const std::exception& e) {
        BUNDLE_ERROR("handler of [%s] fail. exception info: [%s].", file.path().c_str(), ReasonOf(e).c_str());
    } catch (...) {
        BUNDLE_ERROR("handler of [%s] fail.", file.path().c_str());
    }
}

void BundleDirWatcher::AcceptChanges(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    Item* const item = FindItem(path);
    if (item == nullptr || item->isArriving) {
        return;
    }
    const ItemFingerprint fingerprint = FingerprintOf(AT_FDCWD, path, *item);
    if (!item->known.IsReplaced(path, fingerprint)) {
        item->known.Learn(path, fingerprint);
    }
}

void BundleDirWatcher::OfferAgain(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    Item* const item = FindItem(path);
    if (item != nullptr && item->isDirectory) {
        item->isArriving = true;
    }
}

// What cannot be told now is taken to be as it was.
ItemFingerprint BundleDirWatcher::FingerprintOf(int directory, const std::string& path, const Item& item)
{
    return m_fingerprinter.OfItem(directory, path, item.known.Fingerprint());
}

// Null when there is none under that path.
BundleDirWatcher::Item* BundleDirWatcher::FindItem(const std::string& path)
{
    if (path.compare(0, m_prefix.size(), m_prefix) != 0) {
        return nullptr;
    }
    const auto position = m_items.find(std::string_view(path).substr(m_prefix.size()));
    return position == m_items.end() ? nullptr : &position->second;
}

} // namespace SystemServer
