#ifndef CLIENT_EVENT_SERVICE_H
#define CLIENT_EVENT_SERVICE_H

#include "client/include/bundle_client.h"
#include "common/unique_fd.h"

#include <algapp_bolt_comm.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

namespace BundleClient {

/// Opens the event service without waiting. Follows no link and accepts only a FIFO, so that a user who may write to
/// the directory cannot choose which file is read or written.
/// @param fifo receives the descriptor, close-on-exec; on failure it may hold one that is not a FIFO
/// @param access O_WRONLY, which fails without a reader, or O_RDWR
/// @return BUNDLE_CLIENT_OK, BUNDLE_CLIENT_NOT_A_FIFO, or BUNDLE_CLIENT_SYSTEM with errno set
inline int OpenEventService(Common::UniqueFd& fifo, int access)
{
    fifo.Reset(::open(SystemServer::EVENT_SERVICE_PATH, access | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
    if (!fifo.IsOpen()) {
        return errno == ELOOP ? BUNDLE_CLIENT_NOT_A_FIFO : BUNDLE_CLIENT_SYSTEM;
    }
    struct stat status {};
    return ::fstat(fifo.Get(), &status) == 0 && S_ISFIFO(status.st_mode) ? BUNDLE_CLIENT_OK : BUNDLE_CLIENT_NOT_A_FIFO;
}

} // namespace BundleClient

#endif
