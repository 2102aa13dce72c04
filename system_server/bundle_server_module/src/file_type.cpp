#include "file_type.h"

#include "bundle_log.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace SystemServer {

std::optional<mode_t> FileType(const std::string& path)
{
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? std::optional<mode_t>(status.st_mode & S_IFMT) : std::nullopt;
}

bool MeansAbsence(int error)
{
    return error == ENOENT || error == ENOTDIR || error == ELOOP;
}

bool IsDirectory(const std::string& path)
{
    const std::optional<mode_t> type = FileType(path);
    const int error = errno;
    if (!type && !MeansAbsence(error)) {
        BUNDLE_ERROR("[%s] can not be looked at: %s. It counts as no directory.", path.c_str(), std::strerror(error));
    }
    return type && S_ISDIR(*type);
}

} // namespace SystemServer
