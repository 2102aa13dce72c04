#include "service_socket.h"

#include "common/service_directory.h"
#include "name_lock.h"
#include "platform/host/log/host_log.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <ctime>

namespace HostPlatform {

using Common::MakeServiceDirectory;
using Common::SERVICE_DIRECTORY;
using Common::UniqueFd;

namespace {

/// The server's own user and group.
constexpr mode_t SOCKET_MODE = 0660;

/// The wait for another server that starts at the same moment: a second.
constexpr int MOST_TRIES = 100;
constexpr timespec PAUSE{0, 10'000'000};

NameLock::Attempt TakeWithPatience(NameLock& lock)
{
    for (int i = 0; i < MOST_TRIES; ++i) {
        const NameLock::Attempt attempt = lock.Try(NameLock::Foreign::WAIT);
        if (attempt != NameLock::Attempt::BUSY) {
            return attempt;
        }
        ::nanosleep(&PAUSE, nullptr);
    }
    return lock.Try(NameLock::Foreign::REMOVE);
}

UniqueFd NewSocket()
{
    return UniqueFd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

std::string PathOf(const std::string& service)
{
    return std::string(SERVICE_DIRECTORY) + '/' + service;
}

sockaddr_un AddressOf(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

const sockaddr* Generic(const sockaddr_un& address)
{
    return reinterpret_cast<const sockaddr*>(&address);
}

bool IsFileName(const std::string& service)
{
    constexpr std::size_t longest = sizeof(sockaddr_un::sun_path) - sizeof SERVICE_DIRECTORY - 1;
    return !service.empty() && service.size() <= longest && service != "." && service != ".." &&
           service.find('/') == std::string::npos;
}

/// Whether no server listens at the path: the socket of a dead server refuses a connection. Any other answer comes from
/// a live one, one that is too busy to accept included, and is logged.
bool NobodyAnswers(const std::string& service, const std::string& path)
{
    const UniqueFd probe = NewSocket();
    if (!probe.IsOpen()) {
        HOST_LOG_ERROR("service[%s]: no socket to be had: %s.", service.c_str(), std::strerror(errno));
        return false;
    }
    const sockaddr_un address = AddressOf(path);
    const bool connected = ::connect(probe.Get(), Generic(address), sizeof address) == 0;
    if (connected || (errno != ECONNREFUSED && errno != ENOENT)) {
        HOST_LOG_ERROR("service[%s]: a live server holds %s (%s): end that one first.", service.c_str(), path.c_str(),
                       connected ? "it accepts connections" : std::strerror(errno));
        return false;
    }
    return true;
}

/// Removes the socket of a dead server at the path. False, with the reason in the log, when the path is not free then.
bool ClearPath(const std::string& service, const std::string& path)
{
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        if (errno == ENOENT) {
            return true;
        }
        HOST_LOG_ERROR("service[%s]: %s cannot be looked at: %s.", service.c_str(), path.c_str(), std::strerror(errno));
        return false;
    }
    if (!S_ISSOCK(status.st_mode)) {
        HOST_LOG_ERROR("service[%s]: %s is in the way and is no socket: remove it.", service.c_str(), path.c_str());
        return false;
    }
    if (!NobodyAnswers(service, path)) {
        return false;
    }
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        HOST_LOG_ERROR("service[%s]: the socket of a dead server at %s cannot be removed: %s.", service.c_str(),
                       path.c_str(), std::strerror(errno));
        return false;
    }
    return true;
}

} // namespace

ServiceSocket::Listening ServiceSocket::Listen(const std::string& service, Patience patience)
{
    if (!IsFileName(service)) {
        HOST_LOG_ERROR("service[%s]: no name for a socket in %s: it is empty, too long or has a slash.",
                       service.c_str(), SERVICE_DIRECTORY);
        return Listening::FAILED;
    }
    if (!MakeServiceDirectory()) {
        HOST_LOG_ERROR("service[%s]: %s cannot be made: %s. Make it, writable for user %u.", service.c_str(),
                       SERVICE_DIRECTORY, std::strerror(errno), static_cast<unsigned>(::geteuid()));
        return Listening::FAILED;
    }
    // Held from the first check of the path until the socket listens. So of two servers that start at the same moment
    // the later one finds the other's live socket.
    NameLock lock(service);
    switch (patience == Patience::A_SECOND ? TakeWithPatience(lock) : lock.Try(NameLock::Foreign::REMOVE)) {
    case NameLock::Attempt::TAKEN:
        break;
    case NameLock::Attempt::BUSY:
        m_obstacle = lock.Path() + ' ' + lock.Obstacle();
        return NobodyAnswers(service, PathOf(service)) ? Listening::LATER : Listening::FAILED;
    case NameLock::Attempt::FAILED:
        HOST_LOG_ERROR("service[%s]: no lock can be made at %s: %s.", service.c_str(), lock.Path().c_str(),
                       std::strerror(errno));
        return Listening::FAILED;
    }
    return ListenAt(service) ? Listening::BEGUN : Listening::FAILED;
}

bool ServiceSocket::ListenAt(const std::string& service)
{
    const std::string path = PathOf(service);
    if (!ClearPath(service, path)) {
        return false;
    }
    UniqueFd fd = NewSocket();
    const sockaddr_un address = AddressOf(path);
    // The mode is set before the socket has a name, so that it is never open to others, and again afterwards, because
    // the umask may have removed bits.
    if (!fd.IsOpen() || ::fchmod(fd.Get(), SOCKET_MODE) != 0 ||
        ::bind(fd.Get(), Generic(address), sizeof address) != 0) {
        HOST_LOG_ERROR("service[%s]: no socket can be made at %s: %s.", service.c_str(), path.c_str(),
                       std::strerror(errno));
        return false;
    }
    struct stat status {};
    if (::chmod(path.c_str(), SOCKET_MODE) != 0 || ::listen(fd.Get(), SOMAXCONN) != 0 ||
        ::lstat(path.c_str(), &status) != 0) {
        HOST_LOG_ERROR("service[%s]: the socket at %s cannot be made ready: %s.", service.c_str(), path.c_str(),
                       std::strerror(errno));
        ::unlink(path.c_str());
        return false;
    }
    m_path = path;
    m_fd = std::move(fd);
    m_device = status.st_dev;
    m_inode = status.st_ino;
    return true;
}

void ServiceSocket::Remove()
{
    if (!m_fd.IsOpen()) {
        return;
    }
    // Before the socket is closed. While it is open, no other server replaces it and no other file gets its inode
    // number.
    struct stat status {};
    if (::lstat(m_path.c_str(), &status) == 0 && status.st_dev == m_device && status.st_ino == m_inode) {
        ::unlink(m_path.c_str());
    }
    m_fd.Reset();
}

} // namespace HostPlatform
