#ifndef KNOWN_ITEM_H
#define KNOWN_ITEM_H

#include "item_details.h"
#include "item_fingerprint.h"

#include <memory>
#include <string>

namespace SystemServer {

/// How an item was when it was last looked at, and whether it has changed since. Each path is the item's.
class KnownItem {
public:
    const ItemFingerprint& Fingerprint() const { return m_fingerprint; }

    /// For an item that is not in use yet: every difference counts as a change.
    void SetFingerprint(const ItemFingerprint& now);

    /// Marks the item's current state as known.
    /// @throws std::bad_alloc
    void Learn(const std::string& path, const ItemFingerprint& now);

    /// Takes over what differs without being a change.
    /// @throws std::bad_alloc
    bool HasChanged(const std::string& path, const ItemFingerprint& now);

    /// Whether another directory has come to the item's place.
    /// @throws std::bad_alloc
    bool IsReplaced(const std::string& path, const ItemFingerprint& now) const;

    /// Once it is learned. There numbers and births of directories change by themselves.
    bool IsOnOverlay() const { return m_details != nullptr; }

private:
    ItemFingerprint m_fingerprint;
    std::unique_ptr<const ItemDetails> m_details; // where they are needed; never older than the fingerprint
};

} // namespace SystemServer

#endif
