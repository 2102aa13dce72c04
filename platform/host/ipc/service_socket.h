#ifndef PLATFORM_HOST_IPC_SERVICE_SOCKET_H
#define PLATFORM_HOST_IPC_SERVICE_SOCKET_H

#include "common/unique_fd.h"

#include <sys/types.h>

#include <string>

namespace HostPlatform {

/// A service's listening socket in the service directory, and the duty to remove it again. Non-blocking and
/// close-on-exec. Used by one thread at a time.
class ServiceSocket {
public:
    ServiceSocket() = default;
    ServiceSocket(const ServiceSocket&) = delete;
    ServiceSocket& operator=(const ServiceSocket&) = delete;
    ~ServiceSocket() { Remove(); }

    /// LATER: another process holds the lock on the name, and no server listens. Obstacle() says what is in the way.
    enum class Listening { BEGUN, LATER, FAILED };
    /// How long to wait for the lock.
    enum class Patience { A_SECOND, NONE };

    /// Claims the name and listens; the user and group of this process may connect. Replaces the socket of a dead
    /// server, but no other file. FAILED, with the reason in the log, when the name is no file name, a live server
    /// holds it, or the system refuses.
    /// @throws std::bad_alloc the socket may already listen; Remove it
    Listening Listen(const std::string& service, Patience patience);
    /// What keeps the lock busy, in words for the log; set by LATER.
    const std::string& Obstacle() const { return m_obstacle; }

    /// Closes the socket. Removes its file first, unless another file has taken its place. May be called again.
    void Remove();

    /// The descriptor, still owned by this; -1 when it does not listen.
    int Get() const { return m_fd.Get(); }

private:
    bool ListenAt(const std::string& service);

    std::string m_path;
    std::string m_obstacle;
    Common::UniqueFd m_fd;
    dev_t m_device = 0;
    ino_t m_inode = 0;
    static_assert(sizeof(ino_t) == 8, "with less, a socket with a large number cannot be recognised");
};

} // namespace HostPlatform

#endif
