#ifndef WATCHED_ITEM_H
#define WATCHED_ITEM_H

#include "item_fingerprint.h"
#include "known_item.h"

#include <cstdint>
#include <limits>
#include <memory>
#include <string>

namespace SystemServer {

/// What the watcher knows of one name in the collection, and which event a look at it calls for. A look finds a change;
/// the change is known once it is taken, just before it is raised. Used by one thread at a time.
class WatchedItem {
public:
    /// Where the item is. The path is put together only where it is needed.
    struct Place {
        int directory; ///< a descriptor that the name is relative to, or AT_FDCWD
        const std::string& name;
        const std::string& prefix; ///< of the path, before the name

        std::string Path() const { return prefix + name; }
    };

    enum class Event { NONE, ADDED, MODIFIED };

    /// What a look at the item has found.
    struct Finding {
        Event event = Event::NONE;
        std::int64_t time = 0; ///< when the change was made, nanoseconds
    };

    explicit WatchedItem(bool isDirectory) : m_isDirectory(isDirectory) {}

    bool IsDirectory() const { return m_isDirectory; }

    /// Whether its end is an event: it was raised as added, or was there from the beginning.
    bool IsRaised() const { return m_isRaised; }

    /// There from the beginning: nothing of what is there now is raised.
    void BeginAsRaised(const Place& place, Fingerprinter& fingerprinter);

    Finding Look(const Place& place, Fingerprinter& fingerprinter);

    /// Marks what a look has found as known. False when there is no longer anything to raise: the item has gone, a copy
    /// into it or a removal of it has gone on, or the change has been accepted.
    bool Take(Event event, const Place& place, Fingerprinter& fingerprinter);

    /// Marks the item's current state as known, unless another directory has come to its place.
    void Accept(const Place& place, Fingerprinter& fingerprinter);

    /// Requests that a directory is raised as added once more, when nothing in it changes any more.
    void RetryAdd();

    /// Requests that the item is raised as modified although its state is known. False when the last modification was
    /// raised for that reason, and nothing else has changed since. Passed over while it is withdrawn.
    bool RaiseOnceMore();

    /// From now on nothing is raised of this very directory but its end.
    /// @throws std::bad_alloc
    void Withdraw(const Place& place, Fingerprinter& fingerprinter);

    /// @param hasBegun whether anything may have been removed; otherwise the directory is followed again
    void EndWithdrawal(const Place& place, bool hasBegun);

    /// Whether the directory that was withdrawn is still there.
    bool IsWithdrawn(const Place& place, Fingerprinter& fingerprinter);

    /// Whether the directory that was withdrawn has made way, be it for another one, or for another bundle in it: a
    /// mount point can be emptied, and not be removed.
    bool HasLeft(const Place& place, Fingerprinter& fingerprinter);

    /// Counts the names in an item that was there from the beginning, which takes longer than a look. Until then a
    /// removal of names from it is raised like any other change.
    void CountNames(const Place& place, Fingerprinter& fingerprinter);
    bool HasCountedNames() const { return m_names != UNCOUNTED; }

private:
    static constexpr std::uint64_t UNCOUNTED = std::numeric_limits<std::uint64_t>::max();

    /// A removal by the server, under way or over, with something left perhaps.
    struct Withdrawal {
        KnownItem directory;
        std::int64_t born = 0;   // the directory; nanoseconds, 0 when the file system does not keep that
        bool isComplete = false; // what stands under the name from now on is another one
        bool wasEmptied = false; // what is in it from now on is another bundle
    };

    /// A change that may be the middle of a removal.
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
    bool m_isArriving = true;          // to be raised as added when it is complete
    bool m_isToBeRaised = false;       // as modified, whatever a look finds
    bool m_wasRaisedSo = false;        // last, and nothing else has been since
    KnownItem m_known;                 // as known; of the last look, while it is arriving
    std::uint64_t m_names = UNCOUNTED; // in the directory, its "bin" and its "script", as known
    TreeFingerprint m_tree;            // of the last look, while it is arriving or a change is held back
    HeldBack m_heldBack;
    std::unique_ptr<Withdrawal> m_withdrawal; // when there is one
};

} // namespace SystemServer

#endif
