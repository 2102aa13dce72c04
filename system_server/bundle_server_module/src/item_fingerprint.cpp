#include "item_fingerprint.h"

#include "bundle_layout.h"
#include "dir_stream.h"
#include "file_type.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

namespace SystemServer {

namespace {

/// The longest walk over a tree: a bundle may be a link to the root directory.
constexpr std::uint64_t WALKED_ENTRIES = 65'536;

/// Indexed by part; the root has no name.
constexpr std::array<const char*, ITEM_PARTS> ITEM_PART_NAMES{"", BundleLayout::MANIFEST, BundleLayout::BIN,
                                                              BundleLayout::SCRIPT};

static_assert(sizeof(ino_t) == 8 && sizeof(off_t) == 8,
              "with less, a file with a large number or size counts as missing");

FileFingerprint FingerprintOf(const struct stat& status)
{
    return {status.st_dev, status.st_ino, Nanoseconds(status.st_mtim), Nanoseconds(status.st_ctim), status.st_size};
}

} // namespace

void AppendPart(std::string& path, std::size_t part)
{
    if (part != ROOT) {
        path.append("/").append(ITEM_PART_NAMES[part]);
    }
}

std::int64_t Nanoseconds(const timespec& time)
{
    return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

std::int64_t NewestChange(const ItemFingerprint& item)
{
    std::int64_t newest = 0;
    for (const FileFingerprint& part : item) {
        newest = std::max(newest, part.changed);
    }
    return newest;
}

ItemFingerprint Fingerprinter::OfItem(int directory, const std::string& path, const ItemFingerprint& last)
{
    ItemFingerprint item = last;
    for (std::size_t part = 0; part < item.size(); ++part) {
        m_partPath.assign(path);
        AppendPart(m_partPath, part);
        struct stat status {};
        if (fstatat(directory, m_partPath.c_str(), &status, 0) == 0) {
            item[part] = FingerprintOf(status);
            if (part == ROOT && !S_ISDIR(status.st_mode)) {
                return {item[ROOT]};
            }
        } else if (MeansAbsence(errno)) {
            item[part] = FileFingerprint();
        }
    }
    return item;
}

// Holds one descriptor at a time at any depth. The standard library's walk would hold one for each level, and would end
// the process when it is out of memory.
TreeFingerprint Fingerprinter::OfTree(const std::string& path, bool isInUse) const
{
    TreeFingerprint tree;
    std::vector<std::string> pending{path};
    for (bool isRoot = true; !pending.empty() && MayWalkOn(tree); isRoot = false) {
        const std::string folder = std::move(pending.back());
        pending.pop_back();
        AddFolder(folder, isRoot && isInUse, tree, pending);
    }
    return tree;
}

// Subfolders are added to the pending ones.
void Fingerprinter::AddFolder(const std::string& path, bool isRootInUse, TreeFingerprint& tree,
                              std::vector<std::string>& pending) const
{
    const DirStream folder(opendir(path.c_str()));
    const auto next = [&] { return folder && MayWalkOn(tree) ? readdir(folder.get()) : nullptr; };
    while (const dirent* const entry = next()) {
        const std::string_view name = entry->d_name;
        struct stat status {};
        if (name == "." || name == ".." ||
            fstatat(dirfd(folder.get()), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
            continue;
        }
        const bool isFolder = S_ISDIR(status.st_mode);
        if (isFolder && isRootInUse && name != BundleLayout::BIN && name != BundleLayout::SCRIPT) {
            continue;
        }
        ++tree.entries;
        tree.bytes += static_cast<std::uint64_t>(status.st_size);
        tree.newestChange = std::max(tree.newestChange, Nanoseconds(status.st_ctim));
        if (isFolder) {
            pending.push_back(path + "/" + entry->d_name);
        }
    }
}

bool Fingerprinter::MayWalkOn(const TreeFingerprint& tree) const
{
    return tree.entries < WALKED_ENTRIES && !m_isStopping;
}

} // namespace SystemServer
