#include "item_details.h"

#include "common/unique_fd.h"
#include "dir_stream.h"
#include "file_type.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace SystemServer {

namespace {

/// The entries of a longer listing are not compared.
constexpr std::size_t LISTED_ENTRIES = 65'536;

/// The manifest's reader refuses longer ones.
constexpr std::size_t HASHED_BYTES = std::size_t{1024} * 1024;

bool IsOnOverlay(const std::string& path)
{
    struct statfs fileSystem {};
    return statfs(path.c_str(), &fileSystem) == 0 && fileSystem.f_type == OVERLAYFS_SUPER_MAGIC;
}

/// FNV-1a. Unknown when the file cannot be read.
std::optional<std::uint64_t> HashContent(const std::string& path)
{
    // Non-blocking, in case a FIFO without a writer has replaced the file.
    const Common::UniqueFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.IsOpen()) {
        return std::nullopt;
    }
    std::uint64_t hash = 0xcbf29ce484222325;
    std::array<unsigned char, 4096> chunk{};
    for (std::size_t hashed = 0; hashed < HASHED_BYTES;) {
        const ssize_t size = read(file.Get(), chunk.data(), chunk.size());
        if (size < 0) {
            return std::nullopt;
        }
        if (size == 0) {
            break;
        }
        for (ssize_t i = 0; i < size; ++i) {
            hash = (hash ^ chunk[static_cast<std::size_t>(i)]) * 0x100000001b3;
        }
        hashed += static_cast<std::size_t>(size);
    }
    return hash;
}

std::int64_t Modified(const struct stat& status)
{
    return Nanoseconds(status.st_mtim);
}

std::string PartPath(std::string path, std::size_t part)
{
    AppendPart(path, part);
    return path;
}

} // namespace

bool ItemDetails::AreNeeded(const std::string& path, const ItemFingerprint& fingerprint)
{
    for (std::size_t part = 0; part < fingerprint.size(); ++part) {
        const auto isOnSameDevice = [&](const FileFingerprint& other) {
            return other.inode != 0 && other.device == fingerprint[part].device;
        };
        const bool isAsked = std::any_of(fingerprint.begin(), fingerprint.begin() + part, isOnSameDevice);
        if (fingerprint[part].inode != 0 && !isAsked && IsOnOverlay(PartPath(path, part))) {
            return true;
        }
    }
    return false;
}

ItemDetails::ItemDetails(const std::string& path)
{
    for (std::size_t part = 0; part < m_parts.size(); ++part) {
        m_parts[part] = PartAt(PartPath(path, part));
    }
}

ItemDetails::Part ItemDetails::PartAt(const std::string& path)
{
    Part part;
    if (fstatat(AT_FDCWD, path.c_str(), &part.status, 0) != 0) {
        part.isKnown = MeansAbsence(errno);
        part.status = {};
        return part;
    }
    part.isKnown = true;
    if (S_ISREG(part.status.st_mode)) {
        part.contentHash = HashContent(path);
    } else if (S_ISDIR(part.status.st_mode)) {
        part.listing = List(path);
    }
    return part;
}

// The kernel may invent an inode number while a directory is cached. The listing then shows another number: the
// layer's. So numbers are permanent where both are the same. This holds for the directory and for those in it.
std::optional<ItemDetails::Listing> ItemDetails::List(const std::string& path)
{
    const DirStream directory(opendir(path.c_str()));
    struct stat own {};
    if (!directory || fstatat(dirfd(directory.get()), ".", &own, 0) != 0) {
        return std::nullopt;
    }
    Listing listing;
    for (;;) {
        errno = 0;
        const dirent* const entry = readdir(directory.get());
        if (entry == nullptr && errno != 0) {
            return std::nullopt;
        }
        if (entry == nullptr) {
            break;
        }
        const std::string name = entry->d_name;
        struct stat status {};
        if (name == ".." || fstatat(dirfd(directory.get()), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
            continue;
        }
        if (S_ISDIR(status.st_mode) && status.st_dev == own.st_dev && status.st_ino != entry->d_ino) {
            listing.keepsNumbers = false;
        }
        if (name != ".") {
            listing.entries.push_back({name, status.st_mode & S_IFMT, status.st_dev, status.st_ino, entry->d_ino,
                                       status.st_size, Modified(status)});
        }
        if (listing.entries.size() > LISTED_ENTRIES) {
            listing.entries.clear();
            break;
        }
    }
    std::sort(listing.entries.begin(), listing.entries.end(),
              [](const Entry& one, const Entry& other) { return one.name < other.name; });
    return listing;
}

bool ItemDetails::HaveChanged(const ItemDetails& later) const
{
    for (std::size_t part = 0; part < m_parts.size(); ++part) {
        if (HasChanged(m_parts[part], later.m_parts[part])) {
            return true;
        }
    }
    return false;
}

bool ItemDetails::IsReplaced(const ItemDetails& later) const
{
    return IsReplaced(m_parts[ROOT], later.m_parts[ROOT]);
}

bool ItemDetails::AreComplete() const
{
    return std::all_of(m_parts.begin(), m_parts.end(), [](const Part& part) {
        const mode_t mode = part.status.st_mode;
        return part.isKnown && (part.contentHash || !S_ISREG(mode)) && (part.listing || !S_ISDIR(mode));
    });
}

bool ItemDetails::HasChanged(const Part& earlier, const Part& later)
{
    const struct stat& one = earlier.status;
    const struct stat& other = later.status;
    if (!earlier.isKnown || !later.isKnown) {
        return false;
    }
    if (one.st_mode != other.st_mode || one.st_uid != other.st_uid || one.st_gid != other.st_gid ||
        Modified(one) != Modified(other) || IsReplaced(earlier, later)) {
        return true;
    }
    // A copy of a file with several links has one link.
    if (!S_ISDIR(one.st_mode) && (one.st_size != other.st_size || one.st_nlink < other.st_nlink)) {
        return true;
    }
    if (earlier.contentHash && later.contentHash && *earlier.contentHash != *later.contentHash) {
        return true;
    }
    return earlier.listing && later.listing && HaveEntriesChanged(*earlier.listing, *later.listing);
}

bool ItemDetails::IsReplaced(const Part& earlier, const Part& later)
{
    if (!S_ISDIR(earlier.status.st_mode) || !S_ISDIR(later.status.st_mode)) {
        return false;
    }
    const bool isSameNumber = earlier.status.st_ino == later.status.st_ino;
    const bool keepNumbers =
        earlier.listing && later.listing && earlier.listing->keepsNumbers && later.listing->keepsNumbers;
    return earlier.status.st_dev != later.status.st_dev || (keepNumbers && !isSameNumber);
}

bool ItemDetails::HaveEntriesChanged(const Listing& earlier, const Listing& later)
{
    const bool keepNumbers = earlier.keepsNumbers && later.keepsNumbers;
    return !std::equal(earlier.entries.begin(), earlier.entries.end(), later.entries.begin(), later.entries.end(),
                       [=](const Entry& one, const Entry& other) {
                           return one.name == other.name && !IsReplaced(one, other, keepNumbers);
                       });
}

// A file with the same number may have been written to in place; this is not checked. If the number differs, size and
// time decide.
bool ItemDetails::IsReplaced(const Entry& earlier, const Entry& later, bool keepsNumbers)
{
    if (earlier.type != later.type) {
        return true;
    }
    const bool isSameNumber = earlier.device == later.device && earlier.inode == later.inode;
    if (S_ISDIR(earlier.type)) {
        return keepsNumbers && !isSameNumber;
    }
    // A cached file that was copied up shows its new number only after the kernel has dropped it from the cache.
    const bool showsNewNumber = earlier.inode != earlier.listedInode && earlier.listedInode == later.listedInode &&
                                later.inode == later.listedInode;
    return !isSameNumber && !showsNewNumber && (earlier.size != later.size || earlier.modified != later.modified);
}

} // namespace SystemServer
