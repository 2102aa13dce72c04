#ifndef ITEM_FINGERPRINT_H
#define ITEM_FINGERPRINT_H

#include <sys/stat.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace SystemServer {

/// Shows that a file was replaced or changed. For a directory, the time of modification alone is not enough: archive
/// and mirror programs set it back after a change.
struct FileFingerprint {
    std::uint64_t device = 0;
    std::uint64_t inode = 0; // 0: the file does not exist
    std::int64_t modified = 0;
    std::int64_t changed = 0; // time of the inode's change; both in nanoseconds
    std::int64_t size = 0;

    bool IsSameFile(const FileFingerprint& other) const { return device == other.device && inode == other.inode; }
    bool operator==(const FileFingerprint& other) const
    {
        return IsSameFile(other) && modified == other.modified && changed == other.changed && size == other.size;
    }
};

/// The directory itself, its manifest, "bin" and "script".
enum ItemPart { ROOT, MANIFEST, BIN, SCRIPT, ITEM_PARTS };
using ItemFingerprint = std::array<FileFingerprint, ITEM_PARTS>;

/// Turns an item's path into the path of one of its parts. The root's path is the item's own path.
void AppendPart(std::string& path, std::size_t part);

/// The time of the latest change of any part, in nanoseconds.
std::int64_t NewestChange(const ItemFingerprint& item);

/// A fingerprint of a whole tree, which shows whether anything in it changes.
struct TreeFingerprint {
    std::uint64_t entries = 0;
    std::uint64_t bytes = 0;
    std::int64_t newestChange = 0; // below the root, in nanoseconds

    bool operator==(const TreeFingerprint& other) const
    {
        return entries == other.entries && bytes == other.bytes && newestChange == other.newestChange;
    }
};

/// Takes the fingerprints of the items of one collection. Used by one thread at a time.
class Fingerprinter {
public:
    /// @param isStopping outlives it; a walk over a tree ends early once it is set
    explicit Fingerprinter(const std::atomic<bool>& isStopping) : m_isStopping(isStopping) {}

    /// A part that cannot be examined now counts as unchanged.
    /// @param path below directory, or absolute; a link counts as its target
    ItemFingerprint OfItem(int directory, const std::string& path, const ItemFingerprint& last);

    /// For an item in use, covers only the parts that OfItem covers: its processes may write to the rest all the time.
    TreeFingerprint OfTree(const std::string& path, bool isInUse) const;

private:
    void AddFolder(const std::string& path, bool isRootInUse, TreeFingerprint& tree,
                   std::vector<std::string>& pending) const;
    bool MayWalkOn(const TreeFingerprint& tree) const;

    const std::atomic<bool>& m_isStopping;
    std::string m_partPath; // spares each fingerprint its allocations
};

std::int64_t Nanoseconds(const timespec& time);

} // namespace SystemServer

#endif
