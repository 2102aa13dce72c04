#include "bundle_dir_watcher.h"

#include "bundle_log.h"
#include "child_process.h"

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Path.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>

namespace SystemServer {

namespace {

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};
using DirStream = std::unique_ptr<DIR, DirCloser>;

std::int64_t Nanoseconds(const timespec& time)
{
    return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

std::string DirectoryPrefix(const std::string& path)
{
    Poco::Path prefix(path);
    prefix.makeDirectory();
    return prefix.toString();
}

// A link counts as what it leads to; one that leads nowhere is there all the same, but no directory.
bool IsDirectoryAt(int directory, const std::string& name, unsigned char type)
{
    if (type != DT_LNK && type != DT_UNKNOWN) {
        return type == DT_DIR;
    }
    struct stat status {};
    return fstatat(directory, name.c_str(), &status, 0) == 0 && S_ISDIR(status.st_mode);
}

bool IsDirectory(const std::string& path)
{
    return IsDirectoryAt(AT_FDCWD, path, DT_UNKNOWN);
}

// The framework has opened a descriptor, which it closes neither on exec nor when it stops: every bundle would have it.
void KeepInotifyFromChildren()
{
    const std::string descriptors = "/proc/self/fd/";
    const DirStream stream(opendir(descriptors.c_str()));
    while (const dirent* const entry = stream ? readdir(stream.get()) : nullptr) {
        std::array<char, 32> target{};
        if (readlink((descriptors + entry->d_name).c_str(), target.data(), target.size() - 1) > 0 &&
            std::strcmp(target.data(), "anon_inode:inotify") == 0) {
            fcntl(std::atoi(entry->d_name), F_SETFD, FD_CLOEXEC); // NOLINT(cert-err34-c): the kernel wrote the number
        }
    }
}

} // namespace

bool BundleDirWatcher::FileMark::operator==(const FileMark& other) const
{
    return device == other.device && inode == other.inode && modified == other.modified && changed == other.changed &&
           size == other.size;
}

bool BundleDirWatcher::TreeMark::operator==(const TreeMark& other) const
{
    return entries == other.entries && bytes == other.bytes && newestChange == other.newestChange;
}

BundleDirWatcher::BundleDirWatcher(const std::string& path, std::chrono::milliseconds interval)
    : DirectoryWatcher(path, DW_ITEM_ADDED | DW_ITEM_REMOVED | DW_ITEM_MODIFIED, 1), m_prefix(DirectoryPrefix(path)),
      m_interval(interval)
{
    // At once, before the framework's thread has begun to look: once it has, it looks up only five times a second.
    stop();
    KeepInotifyFromChildren();
    Scan();
    const TerminationSignalsBlocked blocked;
    m_thread = std::thread(&BundleDirWatcher::Follow, this, Clock::now() + m_interval);
}

BundleDirWatcher::~BundleDirWatcher()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_stopRequested.notify_one();
    m_thread.join();
}

void BundleDirWatcher::Follow(Clock::time_point firstScan)
{
    prctl(PR_SET_NAME, "bundle_watcher");
    for (auto next = firstScan; WaitUntil(next); next = std::max(next + m_interval, Clock::now())) {
        for (const Change& change : Scan()) {
            if (IsStopping()) {
                return;
            }
            if (Take(change)) {
                Raise(change);
            }
        }
    }
}

bool BundleDirWatcher::WaitUntil(Clock::time_point time)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return !m_stopRequested.wait_until(lock, time, [this] { return m_stopping; });
}

bool BundleDirWatcher::IsStopping() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_stopping;
}

// What is to be raised, in order. Nothing counts as raised yet: a handler may take long, and what has become of an item
// by the time its turn comes is looked at then.
BundleDirWatcher::Changes BundleDirWatcher::Scan()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    Changes changes;
    if (!LookAtAll(changes)) {
        return {};
    }
    ++m_scan;
    // Removals first: a bundle that is renamed would otherwise be refused as a duplicate of itself.
    std::stable_partition(changes.begin(), changes.end(),
                          [](const Change& change) { return change.type == DW_ITEM_REMOVED; });
    return changes;
}

bool BundleDirWatcher::LookAtAll(Changes& changes)
{
    const DirStream collection(opendir(m_prefix.c_str()));
    errno = collection ? 0 : errno;
    std::string name;
    while (const dirent* const entry = collection ? readdir(collection.get()) : nullptr) {
        name = entry->d_name;
        if (name != "." && name != "..") {
            LookAt(dirfd(collection.get()), name, entry->d_type, changes);
        }
        errno = 0;
    }
    const int error = errno;
    NoteReadable(error == 0, error);
    if (error != 0) {
        return false;
    }
    FindGone(changes);
    return true;
}

void BundleDirWatcher::LookAt(int collection, const std::string& name, unsigned char type, Changes& changes)
{
    const bool isDirectory = IsDirectoryAt(collection, name, type);
    auto position = m_items.find(name);
    if (position == m_items.end()) {
        position = m_items.emplace(name, Item()).first;
        position->second.isDirectory = isDirectory;
        if (m_scan == 0) {
            position->second.isRaised = true;
            position->second.phase = Phase::KNOWN;
            position->second.mark = MarkItem(collection, name);
        }
    }
    Item& item = position->second;
    if (item.isDirectory != isDirectory) {
        return; // another thing under the same name: the old one is gone, the next scan finds the new one
    }
    item.lastScan = m_scan;
    if (item.phase == Phase::ARRIVING) {
        if (HasArrived(name, item)) {
            changes.push_back({DW_ITEM_ADDED, name});
        }
    } else if (isDirectory && item.mark != MarkItem(collection, name)) {
        changes.push_back({DW_ITEM_MODIFIED, name});
    }
}

// A directory that was moved in was complete when it came: the move is the latest change of its inode, later than the
// last change of its content, and nothing below has changed since. Any other must have stood still for one scan.
bool BundleDirWatcher::HasArrived(const std::string& name, Item& item) const
{
    if (!item.isDirectory) {
        return true;
    }
    const std::string path = m_prefix + name;
    struct stat root {};
    if (stat(path.c_str(), &root) != 0) {
        return false;
    }
    TreeMark tree = MarkTree(path);
    const std::int64_t moved = Nanoseconds(root.st_ctim);
    const bool wasMovedIn = moved > Nanoseconds(root.st_mtim) && tree.newestChange <= moved;
    tree.newestChange = std::max(tree.newestChange, moved);
    const bool stoodStill = tree == item.tree;
    item.tree = tree;
    return wasMovedIn || stoodStill;
}

void BundleDirWatcher::FindGone(Changes& changes)
{
    for (auto item = m_items.begin(); item != m_items.end();) {
        if (item->second.lastScan == m_scan) {
            ++item;
        } else if (item->second.isRaised) {
            changes.push_back({DW_ITEM_REMOVED, item->first});
            ++item;
        } else {
            item = m_items.erase(item);
        }
    }
}

void BundleDirWatcher::NoteReadable(bool isReadable, int error)
{
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

// Makes the change the watcher's own knowledge, just before it is raised. False when there is no longer anything to
// raise.
bool BundleDirWatcher::Take(const Change& change)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto position = m_items.find(change.name);
    Item& item = position->second; // only this thread takes items away
    const std::string path = m_prefix + change.name;
    if (change.type == DW_ITEM_REMOVED) {
        m_items.erase(position);
        return true;
    }
    if (item.isDirectory && !IsDirectory(path)) {
        return false; // the next scan sees that it has gone
    }
    const ItemMark mark = MarkItem(AT_FDCWD, path);
    if (change.type == DW_ITEM_MODIFIED && mark == item.mark) {
        return false; // accepted meanwhile
    }
    const bool isOffered = change.type == DW_ITEM_MODIFIED && item.phase == Phase::REFUSED;
    item.phase = isOffered ? Phase::ARRIVING : Phase::KNOWN;
    item.isRaised = true;
    item.mark = mark;
    item.tree = TreeMark();
    return true;
}

void BundleDirWatcher::Raise(const Change& change)
{
    const Poco::File file(m_prefix + change.name);
    const DirectoryEvent event(file, change.type);
    try {
        switch (change.type) {
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
        BUNDLE_ERROR("handler of [%s] fail. exception info: [%s].", file.path().c_str(), e.what());
    }
}

void BundleDirWatcher::AcceptChanges(const std::string& path)
{
    Remark(path, false);
}

void BundleDirWatcher::OfferAgain(const std::string& path)
{
    Remark(path, true);
}

void BundleDirWatcher::Remark(const std::string& path, bool offerAgain)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto position = m_items.find(path.substr(std::min(path.size(), m_prefix.size())));
    if (position == m_items.end() || position->second.phase == Phase::ARRIVING) {
        return;
    }
    position->second.mark = MarkItem(AT_FDCWD, path);
    if (offerAgain) {
        position->second.phase = Phase::REFUSED;
    }
}

std::vector<std::string> BundleDirWatcher::Directories() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> paths;
    for (const auto& [name, item] : m_items) {
        if (item.isDirectory && item.phase != Phase::ARRIVING) {
            paths.push_back(m_prefix + name);
        }
    }
    return paths;
}

BundleDirWatcher::ItemMark BundleDirWatcher::MarkItem(int directory, const std::string& path)
{
    constexpr std::array<const char*, 4> parts{"", "/BundleManifest.ini", "/bin", "/script"};
    ItemMark mark;
    std::string part;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        part.assign(path).append(parts[i]);
        struct stat status {};
        if (fstatat(directory, part.c_str(), &status, 0) != 0) {
            continue;
        }
        mark[i].device = status.st_dev;
        mark[i].inode = status.st_ino;
        mark[i].modified = Nanoseconds(status.st_mtim);
        if (!S_ISDIR(status.st_mode)) {
            mark[i].changed = Nanoseconds(status.st_ctim);
            mark[i].size = status.st_size;
        }
    }
    return mark;
}

BundleDirWatcher::TreeMark BundleDirWatcher::MarkTree(const std::string& path)
{
    TreeMark mark;
    std::error_code error;
    using Options = std::filesystem::directory_options;
    std::filesystem::recursive_directory_iterator entry(path, Options::skip_permission_denied, error);
    for (const std::filesystem::recursive_directory_iterator end; !error && entry != end; entry.increment(error)) {
        struct stat status {};
        if (lstat(entry->path().c_str(), &status) == 0) {
            ++mark.entries;
            mark.bytes += static_cast<std::uint64_t>(status.st_size);
            mark.newestChange = std::max(mark.newestChange, Nanoseconds(status.st_ctim));
        }
    }
    return mark;
}

} // namespace SystemServer
