#ifndef KNOWN_ITEM_H
#define KNOWN_ITEM_H

#include "item_details.h"
#include "item_fingerprint.h"

#include <memory>
#include <string>

namespace SystemServer {

/// The last known state of an item, and whether it has changed since. Each path is the item's.
class KnownItem {
public:
    const ItemFingerprint& Fingerprint() const { return m_fingerprint; }

    /// For an item that is not in use yet: every difference counts as a change.
    void SetFingerprint(const ItemFingerprint& now);

    /// Marks the item's current state as known.
    /// @throws std::bad_alloc
    void Learn(const std::string& path, const ItemFingerprint& now);

    /// Updates the known state by differences that are not changes.
    /// @throws std::bad_alloc
    bool HasChanged(const std::string& path, const ItemFingerprint& now);

    /// Whether another directory has taken the item's place.
    /// @throws std::bad_alloc
    bool IsReplaced(const std::string& path, const ItemFingerprint& now) const;

    /// Known once the details have been taken. On an overlay, inode numbers and birth times of directories can change
    /// without a change of the item.
    bool IsOnOverlay() const { return m_details != nullptr; }

private:
    ItemFingerprint m_fingerprint;
    std::unique_ptr<const ItemDetails> m_details; // only on an overlay; never older than the fingerprint
};

} // namespace SystemServer

#endif
