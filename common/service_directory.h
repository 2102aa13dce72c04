#ifndef COMMON_SERVICE_DIRECTORY_H
#define COMMON_SERVICE_DIRECTORY_H

#include <sys/stat.h>

#include <cerrno>

namespace Common {

/// Where services and the event service stand, each under its own name. Programs of the device find each other here.
constexpr const char SERVICE_DIRECTORY[] = "/mnt/bolt";

/// Makes the service directory where it is missing. False, with errno set, when it is missing and cannot be made.
inline bool MakeServiceDirectory()
{
    // Everybody may look; each socket says who may connect. Set again because the umask may have removed bits.
    constexpr mode_t mode = 0755;
    if (::mkdir(SERVICE_DIRECTORY, mode) == 0) {
        return ::chmod(SERVICE_DIRECTORY, mode) == 0;
    }
    if (errno != EEXIST) {
        return false;
    }
    struct stat status {};
    if (::stat(SERVICE_DIRECTORY, &status) == 0 && !S_ISDIR(status.st_mode)) {
        errno = ENOTDIR;
        return false;
    }
    return true;
}

} // namespace Common

#endif
