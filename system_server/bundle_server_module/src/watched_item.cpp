#include "watched_item.h"

#include "dir_stream.h"
#include "file_type.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

namespace SystemServer {

namespace {

/// A change is no longer held back after so many looks in which no name has gone: a bundle that writes to its own
/// folders never comes to rest. A removal removes something within that time.
constexpr int LOOKS_WITHOUT_LOSS = 10;

constexpr std::int64_t NANOSECONDS = 1'000'000'000;

// The time at which the directory was made; 0: unknown.
std::int64_t BirthOf(const WatchedItem::Place& place)
{
    struct statx status {};
    if (statx(place.directory, place.name.c_str(), 0, STATX_BTIME, &status) != 0 ||
        (status.stx_mask & STATX_BTIME) == 0) {
        return 0;
    }
    return status.stx_btime.tv_sec * NANOSECONDS + status.stx_btime.tv_nsec;
}

// False when it is unknown.
bool IsEmpty(const std::string& path)
{
    const DirStream directory(opendir(path.c_str()));
    if (!directory) {
        return false;
    }
    errno = 0;
    while (const dirent* const entry = readdir(directory.get())) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            return false;
        }
    }
    return errno == 0;
}

} // namespace

void WatchedItem::BeginAsRaised(const Place& place, Fingerprinter& fingerprinter)
{
    m_known.Learn(place.Path(), FingerprintOf(place, fingerprinter));
    m_isRaised = true;
    m_isArriving = false;
}

WatchedItem::Finding WatchedItem::Look(const Place& place, Fingerprinter& fingerprinter)
{
    if (m_withdrawal) {
        return {};
    }
    if (m_isArriving) {
        const bool hasArrived = HasArrived(place, fingerprinter);
        const std::int64_t newest = std::max(m_tree.newestChange, m_known.Fingerprint()[ROOT].changed);
        return {hasArrived ? Event::ADDED : Event::NONE, newest};
    }
    const ItemFingerprint now = FingerprintOf(place, fingerprinter);
    const bool hasChanged = now != m_known.Fingerprint() && m_known.HasChanged(place.Path(), now);
    if (!hasChanged) {
        m_heldBack = {};
        return {m_isToBeRaised ? Event::MODIFIED : Event::NONE, 0};
    }
    if (HasLostNames(place, now, fingerprinter) && !HasComeToRest(place, fingerprinter)) {
        return {};
    }
    return {Event::MODIFIED, NewestChange(now)};
}

// A directory that was moved in is complete: the move is the latest change of its inode, it is later than the last
// change of its content, and nothing below has changed since. This test is valid only when the directory is seen for
// the first time. Later, or without a manifest, a running copy that has set the owner or mode looks the same. A
// directory that was not moved in must be unchanged for one scan.
bool WatchedItem::HasArrived(const Place& place, Fingerprinter& fingerprinter)
{
    const ItemFingerprint now = FingerprintOf(place, fingerprinter);
    if (!m_isDirectory) {
        m_known.SetFingerprint(now);
        return true;
    }
    const TreeFingerprint tree = fingerprinter.OfTree(place.Path(), m_isRaised);
    const FileFingerprint& root = now[ROOT];
    const bool wasMovedIn = !root.IsSameFile(m_known.Fingerprint()[ROOT]) && now[MANIFEST].inode != 0 &&
                            root.changed > root.modified && root.changed > tree.newestChange;
    const bool stoodStill = now == m_known.Fingerprint() && tree == m_tree;
    m_known.SetFingerprint(now);
    m_tree = tree;
    return wasMovedIn || stoodStill;
}

// The manifest, "bin" or "script" is missing, or there are fewer names in "bin", "script" and the directory itself.
bool WatchedItem::HasLostNames(const Place& place, const ItemFingerprint& now, Fingerprinter& fingerprinter) const
{
    const ItemFingerprint& known = m_known.Fingerprint();
    for (std::size_t part = MANIFEST; part < now.size(); ++part) {
        if (now[part].inode == 0 && known[part].inode != 0) {
            return true;
        }
    }
    return m_names != UNCOUNTED && fingerprinter.OfTree(place.Path(), true).entries < m_names;
}

// Compares the whole tree: a removal may be at work in a folder whose changes do not count.
bool WatchedItem::HasComeToRest(const Place& place, Fingerprinter& fingerprinter)
{
    const TreeFingerprint tree = fingerprinter.OfTree(place.Path(), false);
    const bool stoodStill = m_heldBack.isChange && tree == m_tree;
    if (!m_heldBack.isChange || tree.entries < m_heldBack.fewestEntries) {
        m_heldBack = {true, tree.entries, 0};
    } else {
        ++m_heldBack.looksSinceFewest;
    }
    m_tree = tree;
    return stoodStill || m_heldBack.looksSinceFewest >= LOOKS_WITHOUT_LOSS;
}

bool WatchedItem::Take(Event event, const Place& place, Fingerprinter& fingerprinter)
{
    if (m_withdrawal || !IsThere(place)) {
        return false;
    }
    const ItemFingerprint now = FingerprintOf(place, fingerprinter);
    bool wasRaisedSo = m_wasRaisedSo;
    if (event == Event::MODIFIED) {
        const bool hasChanged = m_known.HasChanged(place.Path(), now);
        if (!hasChanged && !m_isToBeRaised) {
            return false;
        }
        if (hasChanged && HasLostNames(place, now, fingerprinter) &&
            (!m_heldBack.isChange || fingerprinter.OfTree(place.Path(), false).entries < m_tree.entries)) {
            return false; // a removal has begun or continued
        }
        wasRaisedSo = !hasChanged;
    } else if (m_isDirectory &&
               (now != m_known.Fingerprint() || !(fingerprinter.OfTree(place.Path(), m_isRaised) == m_tree))) {
        return false; // a copy has continued
    }
    Learn(place, now, fingerprinter);
    m_isArriving = false;
    m_isRaised = true;
    m_isToBeRaised = false;
    m_wasRaisedSo = wasRaisedSo;
    m_tree = {};
    return true;
}

void WatchedItem::Accept(const Place& place, Fingerprinter& fingerprinter)
{
    const ItemFingerprint now = FingerprintOf(place, fingerprinter);
    if (!m_isArriving && !m_known.IsReplaced(place.Path(), now)) {
        Learn(place, now, fingerprinter);
    }
}

void WatchedItem::RetryAdd()
{
    if (m_isDirectory && !m_withdrawal) {
        m_isArriving = true;
    }
}

bool WatchedItem::RaiseOnceMore()
{
    if (!m_withdrawal && !m_wasRaisedSo) {
        m_isToBeRaised = true;
    }
    return m_withdrawal || m_isToBeRaised;
}

void WatchedItem::Withdraw(const Place& place, Fingerprinter& fingerprinter)
{
    auto withdrawal = std::make_unique<Withdrawal>();
    withdrawal->directory.Learn(place.Path(), FingerprintOf(place, fingerprinter));
    withdrawal->born = BirthOf(place);
    m_withdrawal = std::move(withdrawal);
}

void WatchedItem::EndWithdrawal(const Place& place, bool hasBegun)
{
    if (!hasBegun) {
        m_withdrawal = nullptr;
    }
    if (m_withdrawal) {
        m_withdrawal->isComplete = KindAt(place.directory, place.name.c_str()) == EntryKind::ABSENT;
        m_withdrawal->wasEmptied = IsEmpty(place.Path());
    }
}

bool WatchedItem::IsWithdrawn(const Place& place, Fingerprinter& fingerprinter)
{
    return m_withdrawal && IsThere(place) && !HasLeft(place, fingerprinter);
}

bool WatchedItem::HasLeft(const Place& place, Fingerprinter& fingerprinter)
{
    if (!m_withdrawal) {
        return false;
    }
    Withdrawal& withdrawal = *m_withdrawal;
    if (!withdrawal.isComplete) {
        const bool isEmpty = IsEmpty(place.Path());
        withdrawal.isComplete = (withdrawal.wasEmptied && !isEmpty) || IsReplaced(withdrawal, place, fingerprinter);
        withdrawal.wasEmptied = isEmpty;
    }
    return withdrawal.isComplete;
}

// Many file systems give a new directory the inode number of one that has just gone. The birth time distinguishes the
// two, but not on an overlay, where a change can give a directory a new birth time.
bool WatchedItem::IsReplaced(const Withdrawal& withdrawal, const Place& place, Fingerprinter& fingerprinter)
{
    const KnownItem& directory = withdrawal.directory;
    const ItemFingerprint found = fingerprinter.OfItem(place.directory, place.name, directory.Fingerprint());
    if (directory.IsReplaced(place.Path(), found)) {
        return true;
    }
    const std::int64_t now = BirthOf(place);
    return withdrawal.born != 0 && now != 0 && withdrawal.born != now && !directory.IsOnOverlay();
}

void WatchedItem::CountNames(const Place& place, Fingerprinter& fingerprinter)
{
    m_names = m_isDirectory ? fingerprinter.OfTree(place.Path(), true).entries : 0;
}

ItemFingerprint WatchedItem::FingerprintOf(const Place& place, Fingerprinter& fingerprinter) const
{
    return fingerprinter.OfItem(place.directory, place.name, m_known.Fingerprint());
}

void WatchedItem::Learn(const Place& place, const ItemFingerprint& now, Fingerprinter& fingerprinter)
{
    CountNames(place, fingerprinter);
    m_known.Learn(place.Path(), now);
}

bool WatchedItem::IsThere(const Place& place) const
{
    return KindAt(place.directory, place.name.c_str()) == (m_isDirectory ? EntryKind::DIRECTORY : EntryKind::OTHER);
}

} // namespace SystemServer
