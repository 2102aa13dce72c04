#ifndef ITEM_DETAILS_H
#define ITEM_DETAILS_H

#include "item_fingerprint.h"

#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace SystemServer {

/// Details that show a real change of an item on an overlay. There, fingerprints can differ although nothing has
/// changed:
///
/// - If the layers are on several file systems, a directory gets another inode number each time the kernel has dropped
///   it from its cache.
/// - The first write below a directory of a lower layer copies it up to the writable one. That changes the time of its
///   inode, its size and its number of links.
///
/// Expensive to take: three directories are listed and the manifest is read.
class ItemDetails {
public:
    /// Whether a part of the item is on an overlay. Takes one system call, unless the parts are on several devices.
    static bool AreNeeded(const std::string& path, const ItemFingerprint& fingerprint);

    /// @throws std::bad_alloc
    explicit ItemDetails(const std::string& path);

    /// Whether the item has changed between these details and later ones. A part that is unknown on one side counts as
    /// unchanged.
    bool HaveChanged(const ItemDetails& later) const;

    /// Whether another directory has taken the item's place. False where inode numbers do not show it.
    bool IsReplaced(const ItemDetails& later) const;

    /// Whether every part is known.
    bool AreComplete() const;

private:
    struct Entry {
        std::string name;
        mode_t type = 0;
        std::uint64_t device = 0;
        std::uint64_t inode = 0;
        std::uint64_t listedInode = 0; // from the listing: the layer's own number
        std::int64_t size = 0;
        std::int64_t modified = 0;
    };

    struct Listing {
        std::vector<Entry> entries; // sorted by name
        bool keepsNumbers = true;   // whether directories have permanent numbers
    };

    struct Part {
        bool isKnown = false;
        struct stat status {};                    // all zero when the part is absent
        std::optional<std::uint64_t> contentHash; // of a regular file
        std::optional<Listing> listing;           // of a directory
    };

    static Part PartAt(const std::string& path);
    static std::optional<Listing> List(const std::string& path);
    static bool HasChanged(const Part& earlier, const Part& later);
    static bool IsReplaced(const Part& earlier, const Part& later);
    static bool HaveEntriesChanged(const Listing& earlier, const Listing& later);
    static bool IsReplaced(const Entry& earlier, const Entry& later, bool keepsNumbers);

    std::array<Part, ITEM_PARTS> m_parts;
};

} // namespace SystemServer

#endif
