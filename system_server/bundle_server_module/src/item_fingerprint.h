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

/// What shows that a file is another one or has another content. Of a directory the times alone would not do: archives
/// and mirrors put back the time of its last change when they have changed it.
struct FileFingerprint {
    std::uint64_t device = 0;
    std::uint64_t inode = 0; // 0: the file does not exist
    std::int64_t modified = 0;
    std::int64_t changed = 0; // of the inode; both in nanoseconds
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

/// Turns an item's path into that of one of its parts; the path of the root is the item's own.
void AppendPart(std::string& path, std::size_t part);

/// When the latest change of one of the parts was made, nanoseconds.
std::int64_t NewestChange(const ItemFingerprint& item);

/// A whole tree: shows whether it stands still.
struct TreeFingerprint {
    std::uint64_t entries = 0;
    std::uint64_t bytes = 0;
    std::int64_t newestChange = 0; // of all below the root, nanoseconds

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

    /// What cannot be told now is taken to be as it was.
    /// @param path below directory, or absolute; a link counts as what it leads to
    ItemFingerprint OfItem(int directory, const std::string& path, const ItemFingerprint& last);

    /// Of an item in use, only what OfItem is about: what it runs may be writing to the rest, without an end.
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
