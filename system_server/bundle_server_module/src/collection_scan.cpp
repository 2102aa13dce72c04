#include "collection_scan.h"

#include "bundle_log.h"
#include "dir_stream.h"
#include "file_type.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <tuple>

namespace SystemServer {

using Kind = CollectionChange::Kind;

namespace {

const std::string NO_PREFIX;

/// The number of items whose names are counted at a time. This takes about 10 ms.
constexpr int COUNTED_ITEMS = 256;

// Removals come first: a renamed bundle would otherwise be refused as a duplicate of itself. Then come plain files,
// which take little time.
bool ComesBefore(const CollectionChange& one, const CollectionChange& other)
{
    const auto rank = [](const CollectionChange& change) {
        return std::make_tuple(change.kind != Kind::REMOVED, change.isDirectory, change.time, std::ref(change.name));
    };
    return rank(one) < rank(other);
}

} // namespace

CollectionScan::Changes CollectionScan::Find()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    Changes changes;
    ScanEntries(changes);
    std::sort(changes.begin(), changes.end(), ComesBefore);
    return changes;
}

void CollectionScan::ScanEntries(Changes& changes)
{
    ++m_scan;
    const DirStream collection(opendir(m_prefix.c_str()));
    if (!collection) {
        LogReadability(errno);
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
            ScanEntry(descriptor, name, entry->d_type, changes);
        }
    }
    const int error = errno;
    LogReadability(error);
    if (error != 0) {
        changes.clear();
    } else if (!m_stopping) {
        FindGone(descriptor, changes);
    }
}

void CollectionScan::ScanEntry(int collection, const char* name, unsigned char type, Changes& changes)
{
    const EntryKind kind = KindOfEntry(collection, name, type);
    if (kind == EntryKind::ABSENT || kind == EntryKind::UNKNOWN) {
        return; // FindGone handles it
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
        return; // another kind of item has the name: the old one has gone, and the next scan finds the new one
    }
    position->second.lastScan = m_scan;
    if (isNew && m_scan == 1) {
        item.BeginAsRaised(place, m_fingerprinter);
        return;
    }
    const WatchedItem::Finding finding = item.Look(place, m_fingerprinter);
    if (finding.event != WatchedItem::Event::NONE) {
        const bool isAdded = finding.event == WatchedItem::Event::ADDED;
        changes.push_back({isAdded ? Kind::ADDED : Kind::MODIFIED, name, isDirectory, finding.time});
    }
}

void CollectionScan::FindGone(int collection, Changes& changes)
{
    for (auto position = m_items.begin(); position != m_items.end();) {
        auto& [name, entry] = *position;
        const bool isGone = entry.lastScan != m_scan && HasGone(collection, name, entry.item);
        if (isGone && !entry.item.IsRaised()) {
            position = m_items.erase(position);
            continue;
        }
        if (isGone) {
            changes.push_back({Kind::REMOVED, name, entry.item.IsDirectory()});
        }
        ++position;
    }
    m_removals.ForEachDue(m_scan, [&changes](const std::string& name) {
        changes.push_back({Kind::REMOVED, name, true, 0, true});
    });
}

// Checked by name: a listing may omit an existing entry while other entries come and go.
bool CollectionScan::HasGone(int collection, const std::string& name, WatchedItem& item)
{
    const EntryKind kind = KindAt(collection, name.c_str());
    const EntryKind known = item.IsDirectory() ? EntryKind::DIRECTORY : EntryKind::OTHER;
    return kind != EntryKind::UNKNOWN && (kind != known || item.HasLeft({collection, name, m_prefix}, m_fingerprinter));
}

void CollectionScan::LogReadability(int error)
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

bool CollectionScan::Take(const CollectionChange& change)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (change.isRetry) {
        return m_removals.IsDue(change.name, m_scan);
    }
    const auto position = m_items.find(change.name); // exists, because only this thread removes items
    if (change.kind == Kind::REMOVED) {
        m_removals.Begin(change.name); // first, because it may fail
        m_items.erase(position);
        return true;
    }
    const bool isAdded = change.kind == Kind::ADDED;
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

void CollectionScan::EndRemoval(const std::string& name)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const int tries = m_removals.End(name, m_scan);
    if (tries == 1) {
        BUNDLE_INFO("removal of [%s%s] is tried again once a second.", m_prefix.c_str(), name.c_str());
    } else if (tries == RemovalTries::FREQUENT_TRIES) {
        BUNDLE_INFO("removal of [%s%s] is tried again once a minute.", m_prefix.c_str(), name.c_str());
    }
}

void CollectionScan::CountNames()
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

void CollectionScan::AcceptChanges(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (WatchedItem* const item = FindItem(path)) {
        item->Accept({AT_FDCWD, path, NO_PREFIX}, m_fingerprinter);
    }
}

void CollectionScan::RetryAdd(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (WatchedItem* const item = FindItem(path)) {
        item->RetryAdd();
    }
}

bool CollectionScan::RaiseOnceMore(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    WatchedItem* const item = FindItem(path);
    return item == nullptr || item->RaiseOnceMore();
}

void CollectionScan::RetryRemoval(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_removals.AskForAnother(NameOf(path));
}

bool CollectionScan::IsWithdrawn(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    WatchedItem* const item = FindItem(path);
    return item != nullptr && item->IsWithdrawn({AT_FDCWD, path, NO_PREFIX}, m_fingerprinter);
}

void CollectionScan::Withdraw(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const std::string_view name = NameOf(path);
    if (name.empty()) {
        return;
    }
    // Not known yet if it came while start-up read the collection.
    WatchedItem& item = m_items.try_emplace(std::string(name), Entry{WatchedItem(true)}).first->second.item;
    item.Withdraw({AT_FDCWD, path, NO_PREFIX}, m_fingerprinter);
}

void CollectionScan::EndWithdrawal(const std::string& path, bool hasBegun)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (WatchedItem* const item = FindItem(path)) {
        item->EndWithdrawal({AT_FDCWD, path, NO_PREFIX}, hasBegun);
    }
}

// The name in an item's path; empty when the path is not an item's.
std::string_view CollectionScan::NameOf(const std::string& path) const
{
    const bool isBelow = path.compare(0, m_prefix.size(), m_prefix) == 0;
    return isBelow ? std::string_view(path).substr(m_prefix.size()) : std::string_view();
}

// Null when the path has no item.
WatchedItem* CollectionScan::FindItem(const std::string& path)
{
    const auto position = m_items.find(NameOf(path));
    return position == m_items.end() ? nullptr : &position->second.item;
}

} // namespace SystemServer
