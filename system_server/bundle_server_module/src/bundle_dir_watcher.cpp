#include "bundle_dir_watcher.h"

#include "bundle_log.h"
#include "common/unique_fd.h"
#include "dir_stream.h"
#include "file_type.h"
#include "framework_watcher.h"
#include "termination_signals.h"

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
#include <new>
#include <string_view>
#include <tuple>
#include <utility>

namespace SystemServer {

using Common::UniqueFd;

namespace {

/// A change younger than this may be half of one: an editor empties a file before it writes it. It is also several
/// times the tick of the kernel's clock, within which a second change could look like the first.
constexpr std::chrono::milliseconds SETTLING_TIME(50);

const std::string NO_PREFIX;

std::string DirectoryPrefix(const std::string& path)
{
    Poco::Path prefix(path);
    prefix.makeDirectory();
    return prefix.toString();
}

/// In how many items names are counted at a time, which takes some 10 ms.
constexpr int COUNTED_ITEMS = 256;

} // namespace

BundleDirWatcher::BundleDirWatcher(const std::string& path, std::chrono::milliseconds interval)
    : BundleDirWatcher(path, interval, InotifyDescriptors())
{}

BundleDirWatcher::BundleDirWatcher(const std::string& path, std::chrono::milliseconds interval,
                                   const std::vector<int>& othersDescriptors)
    : DirectoryWatcher(RequireVisible(path), DW_ITEM_ADDED | DW_ITEM_REMOVED | DW_ITEM_MODIFIED, 1),
      m_prefix(DirectoryPrefix(path)), m_interval(interval)
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
            CountNames();
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
        if (!Take(change)) {
            continue;
        }
        Raise(change.type, item);
        if (change.type == DW_ITEM_REMOVED) {
            EndRemoval(change.name);
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
    const EntryKind kind = KindOfEntry(collection, name, type);
    if (kind == EntryKind::ABSENT || kind == EntryKind::UNKNOWN) {
        return; // what it was is told apart when those that have gone are looked for
    }
    const bool isDirectory = kind == EntryKind::DIRECTORY;
    auto position = m_items.find(name);
    const bool isNew = position == m_items.end();
    if (isNew) {
        position = m_items.emplace(name, Entry{WatchedItem(isDirectory)}).first;
    }
    WatchedItem& item = position->second.item;
    const WatchedItem::Place place{collection, position->first, m_prefix};
    if (item.IsDirectory() != isDirectory || item.HasLeft(place, m_fingerprinter)) {
        return; // another thing under the same name: the old one has gone, the next scan finds the new one
    }
    position->second.lastScan = m_scan;
    if (isNew && m_scan == 1) {
        item.BeginAsRaised(place, m_fingerprinter);
        return;
    }
    const WatchedItem::Finding finding = item.Look(place, m_fingerprinter);
    if (finding.event != WatchedItem::Event::NONE) {
        const bool isAdded = finding.event == WatchedItem::Event::ADDED;
        changes.push_back({isAdded ? DW_ITEM_ADDED : DW_ITEM_MODIFIED, name, isDirectory, finding.time});
    }
}

void BundleDirWatcher::FindGone(int collection, Changes& changes)
{
    for (auto position = m_items.begin(); position != m_items.end();) {
        auto& [name, entry] = *position;
        const bool isGone = entry.lastScan != m_scan && HasGone(collection, name, entry.item);
        if (isGone && !entry.item.IsRaised()) {
            position = m_items.erase(position);
            continue;
        }
        if (isGone) {
            changes.push_back({DW_ITEM_REMOVED, name, entry.item.IsDirectory()});
        }
        ++position;
    }
    m_removals.ForEachDue(m_scan, [&changes](const std::string& name) {
        changes.push_back({DW_ITEM_REMOVED, name, true, 0, true});
    });
}

// Asked by name: a listing may leave out what is there while others come and go.
bool BundleDirWatcher::HasGone(int collection, const std::string& name, WatchedItem& item)
{
    const EntryKind kind = KindAt(collection, name.c_str());
    const EntryKind known = item.IsDirectory() ? EntryKind::DIRECTORY : EntryKind::OTHER;
    return kind != EntryKind::UNKNOWN && (kind != known || item.HasLeft({collection, name, m_prefix}, m_fingerprinter));
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
    if (change.isRetry) {
        return m_removals.IsDue(change.name, m_scan);
    }
    const auto position = m_items.find(change.name); // there: only this thread takes items away
    if (change.type == DW_ITEM_REMOVED) {
        m_removals.Begin(change.name); // first, because it may fail
        m_items.erase(position);
        return true;
    }
    const bool isAdded = change.type == DW_ITEM_ADDED;
    const WatchedItem::Event event = isAdded ? WatchedItem::Event::ADDED : WatchedItem::Event::MODIFIED;
    const std::string path = m_prefix + change.name;
    if (!position->second.item.Take(event, {AT_FDCWD, path, NO_PREFIX}, m_fingerprinter)) {
        return false;
    }
    if (isAdded && change.isDirectory) {
        m_removals.Forget(change.name);
    }
    return true;
}

// Unless the handler has asked for another try, that was all.
void BundleDirWatcher::EndRemoval(const std::string& name)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const int tries = m_removals.End(name, m_scan);
    if (tries == 1) {
        BUNDLE_INFO("removal of [%s%s] is tried again once a second.", m_prefix.c_str(), name.c_str());
    } else if (tries == RemovalTries::FREQUENT_TRIES) {
        BUNDLE_INFO("removal of [%s%s] is tried again once a minute.", m_prefix.c_str(), name.c_str());
    }
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
    if (WatchedItem* const item = FindItem(path)) {
        item->Accept({AT_FDCWD, path, NO_PREFIX}, m_fingerprinter);
    }
}

void BundleDirWatcher::OfferAgain(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (WatchedItem* const item = FindItem(path)) {
        item->OfferAgain();
    }
}

bool BundleDirWatcher::RaiseOnceMore(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    WatchedItem* const item = FindItem(path);
    return item == nullptr || item->RaiseOnceMore();
}

void BundleDirWatcher::RetryRemoval(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_removals.AskForAnother(NameOf(path));
}

bool BundleDirWatcher::IsWithdrawn(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    WatchedItem* const item = FindItem(path);
    return item != nullptr && item->IsWithdrawn({AT_FDCWD, path, NO_PREFIX}, m_fingerprinter);
}

void BundleDirWatcher::Withdraw(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const std::string_view name = NameOf(path);
    if (name.empty()) {
        return;
    }
    // Not yet known when it came while start-up read the collection.
    WatchedItem& item = m_items.try_emplace(std::string(name), Entry{WatchedItem(true)}).first->second.item;
    item.Withdraw({AT_FDCWD, path, NO_PREFIX}, m_fingerprinter);
}

void BundleDirWatcher::EndWithdrawal(const std::string& path, bool hasBegun)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (WatchedItem* const item = FindItem(path)) {
        item->EndWithdrawal({AT_FDCWD, path, NO_PREFIX}, hasBegun);
    }
}

// What is there at the start is not counted at once: start-up would wait for it.
void BundleDirWatcher::CountNames()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    int counted = 0;
    for (auto position = m_items.begin(); !m_areNamesCounted && position != m_items.end(); ++position) {
        auto& [name, entry] = *position;
        if (entry.item.HasCountedNames()) {
            continue;
        }
        if (++counted > COUNTED_ITEMS) {
            return; // the rest after the next scan
        }
        entry.item.CountNames({AT_FDCWD, name, m_prefix}, m_fingerprinter);
    }
    m_areNamesCounted = true;
}

// Of an item's path; empty when it is another's.
std::string_view BundleDirWatcher::NameOf(const std::string& path) const
{
    const bool isBelow = path.compare(0, m_prefix.size(), m_prefix) == 0;
    return isBelow ? std::string_view(path).substr(m_prefix.size()) : std::string_view();
}

// Null when there is none under that path.
WatchedItem* BundleDirWatcher::FindItem(const std::string& path)
{
    const auto position = m_items.find(NameOf(path));
    return position == m_items.end() ? nullptr : &position->second.item;
}

BundleDirWatcher::Withdrawal::Withdrawal(BundleDirWatcher& watcher, std::string path)
    : m_watcher(watcher), m_path(std::move(path))
{
    m_watcher.Withdraw(m_path);
}

BundleDirWatcher::Withdrawal::~Withdrawal()
{
    try {
        m_watcher.EndWithdrawal(m_path, m_hasBegun);
    } catch (const std::bad_alloc&) { // once the removal has begun; the next scan finds out what has become of it
    }
}

} // namespace SystemServer
