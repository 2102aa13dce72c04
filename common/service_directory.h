#ifndef COMMON_SERVICE_DIRECTORY_H
#define COMMON_SERVICE_DIRECTORY_H

#include <sys/stat.h>

#include <cerrno>

namespace Common {

/// The directory of the sockets of all services and of the event service's FIFO, each under its own name. Programs of
/// the device find each other here.
constexpr const char SERVICE_DIRECTORY[] = "/mnt/bolt";

/// Makes the service directory, with mode 0755, if it is missing. An existing one keeps its mode and its owner. Its
/// parent must exist. Any thread; several processes may do so at the same time.
/// @return false, with errno set, when it is missing and cannot be made, or is no directory (ENOTDIR)
inline bool MakeServiceDirectory()
{
    // Every user may list it. The mode of each socket decides who may connect. Set again because the umask may have
    // removed bits.
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
