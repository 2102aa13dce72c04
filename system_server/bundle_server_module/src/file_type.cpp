#include "file_type.h"

#include "bundle_log.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace SystemServer {

namespace {

EntryKind KindOfMode(mode_t mode)
{
    return S_ISDIR(mode) ? EntryKind::DIRECTORY : EntryKind::OTHER;
}

} // namespace

std::optional<mode_t> FileType(const std::string& path)
{
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? std::optional<mode_t>(status.st_mode & S_IFMT) : std::nullopt;
}

bool MeansAbsence(int error)
{
    return error == ENOENT || error == ENOTDIR || error == ELOOP;
}

EntryKind KindAt(int directory, const char* path)
{
    struct stat status {};
    if (fstatat(directory, path, &status, 0) == 0) {
        return KindOfMode(status.st_mode);
    }
    if (MeansAbsence(errno) && fstatat(directory, path, &status, AT_SYMLINK_NOFOLLOW) == 0) {
        return KindOfMode(status.st_mode);
    }
    return MeansAbsence(errno) ? EntryKind::ABSENT : EntryKind::UNKNOWN;
}

EntryKind KindOfEntry(int directory, const char* name, unsigned char type)
{
    if (type == DT_LNK || type == DT_UNKNOWN) {
        return KindAt(directory, name);
    }
    return type == DT_DIR ? EntryKind::DIRECTORY : EntryKind::OTHER;
}

bool IsDirectory(const std::string& path)
{
    const EntryKind kind = KindAt(AT_FDCWD, path.c_str());
    if (kind == EntryKind::UNKNOWN) {
        const int error = errno;
        BUNDLE_ERROR("[%s] can not be looked at: %s. It counts as no directory.", path.c_str(), std::strerror(error));
    }
    return kind == EntryKind::DIRECTORY;
}

} // namespace SystemServer
