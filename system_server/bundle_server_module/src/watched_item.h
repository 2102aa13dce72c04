#ifndef WATCHED_ITEM_H
#define WATCHED_ITEM_H

#include "item_fingerprint.h"
#include "known_item.h"

#include <cstdint>
#include <limits>
#include <memory>
#include <string>

namespace SystemServer {

/// The watcher's knowledge of one name in the collection. A look at the item finds a change and its event. The change
/// becomes known when it is taken, just before it is raised. Used by one thread at a time.
class WatchedItem {
public:
    /// Where the item is. The path is built only when it is needed.
    struct Place {
        int directory; ///< a descriptor that the name is relative to, or AT_FDCWD
        const std::string& name;
        const std::string& prefix; ///< of the path, before the name

        std::string Path() const { return prefix + name; }
    };

    enum class Event { NONE, ADDED, MODIFIED };

    /// The result of a look at the item.
    struct Finding {
        Event event = Event::NONE;
        std::int64_t time = 0; ///< when the change was made, nanoseconds
    };

    explicit WatchedItem(bool isDirectory) : m_isDirectory(isDirectory) {}

    bool IsDirectory() const { return m_isDirectory; }

    /// Whether its end is an event: it was raised as added, or existed at the first scan.
    bool IsRaised() const { return m_isRaised; }

    /// Marks the item as existing at the first scan: its current state is not raised.
    void BeginAsRaised(const Place& place, Fingerprinter& fingerprinter);

    Finding Look(const Place& place, Fingerprinter& fingerprinter);

    /// Marks the change that a look has found as known. False when nothing is to be raised any more: the item has gone,
    /// its copying or removal has continued, or the change has been accepted.
    bool Take(Event event, const Place& place, Fingerprinter& fingerprinter);

    /// Marks the item's current state as known, unless another directory has come to its place.
    void Accept(const Place& place, Fingerprinter& fingerprinter);

    /// Requests that a directory is raised as added once more, when nothing in it changes any more.
    void RetryAdd();

    /// Requests that the item is raised as modified although its state is known. False when the last modification was
    /// raised for that reason, and nothing else has changed since. Ignored while the item is withdrawn.
    bool RaiseOnceMore();

    /// From now on, only the end of this directory is raised.
    /// @throws std::bad_alloc
    void Withdraw(const Place& place, Fingerprinter& fingerprinter);

    /// @param hasBegun whether anything may have been removed; otherwise the directory is followed again
    void EndWithdrawal(const Place& place, bool hasBegun);

    /// Whether the withdrawn directory still exists.
    bool IsWithdrawn(const Place& place, Fingerprinter& fingerprinter);

    /// Whether another directory, or another bundle in the same directory, has replaced the withdrawn one. A mount
    /// point can be emptied but not removed.
    bool HasLeft(const Place& place, Fingerprinter& fingerprinter);

    /// Counts the names in an item that existed at the first scan. This takes longer than a look. Until then, a removal
    /// of names is raised like any other change.
    void CountNames(const Place& place, Fingerprinter& fingerprinter);
    bool HasCountedNames() const { return m_names != UNCOUNTED; }

private:
    static constexpr std::uint64_t UNCOUNTED = std::numeric_limits<std::uint64_t>::max();

    /// A removal by the server. It is running, or it is over and may have left something.
    struct Withdrawal {
        KnownItem directory;
        std::int64_t born = 0;   // the directory's birth time in nanoseconds; 0: the file system has none
        bool isComplete = false; // from now on, another directory has the name
        bool wasEmptied = false; // from now on, another bundle is in the directory
    };

    /// A change that may be part of a removal.
    struct HeldBack {
        bool isChange = false;
        std::uint64_t fewestEntries = 0;
        int looksSinceFewest = 0;
    };

    static bool IsReplaced(const Withdrawal& withdrawal, const Place& place, Fingerprinter& fingerprinter);
    ItemFingerprint FingerprintOf(const Place& place, Fingerprinter& fingerprinter) const;
    void Learn(const Place& place, const ItemFingerprint& now, Fingerprinter& fingerprinter);
    bool IsThere(const Place& place) const;
    bool HasArrived(const Place& place, Fingerprinter& fingerprinter);
    bool HasLostNames(const Place& place, const ItemFingerprint& now, Fingerprinter& fingerprinter) const;
    bool HasComeToRest(const Place& place, Fingerprinter& fingerprinter);

    bool m_isDirectory;
    bool m_isRaised = false;
    bool m_isArriving = true;          // raise it as added when it is complete
    bool m_isToBeRaised = false;       // raise it as modified, independently of a look
    bool m_wasRaisedSo = false;        // that was the last event of the item
    KnownItem m_known;                 // the known state; while the item is arriving, the last look's
    std::uint64_t m_names = UNCOUNTED; // known number of names in the directory, "bin" and "script"
    TreeFingerprint m_tree;            // the last look's, while the item is arriving or a change is held back
    HeldBack m_heldBack;
    std::unique_ptr<Withdrawal> m_withdrawal; // null: not withdrawn
};

} // namespace SystemServer

#endif
