#include "entry_kind.h"

#include "file_type.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

namespace SystemServer {

namespace {

EntryKind KindOfMode(mode_t mode)
{
    return S_ISDIR(mode) ? EntryKind::DIRECTORY : EntryKind::OTHER;
}

} // namespace

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

} // namespace SystemServer
