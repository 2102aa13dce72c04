#include "support/unix_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

/// Room for more than the service sends in one packet.
constexpr std::size_t PACKET_ROOM = 128UL * 1024;

/// Waits for a packet or for the connection's end. False when the time is over first.
bool WaitReadable(int fd, Clock::time_point end)
{
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        pollfd watched{fd, POLLIN, 0};
        const int ready = ::poll(&watched, 1, static_cast<int>(std::max<decltype(left)>(left, 0)));
        if (ready >= 0 || errno != EINTR) {
            return ready > 0;
        }
    }
}

} // namespace

UnixClient::UnixClient(const std::string& path) : m_fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0))
{
    const timeval limit{5, 0};
    ::setsockopt(m_fd.Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (::connect(m_fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        m_error = errno;
    }
}

bool UnixClient::Send(std::string_view packet) const
{
    return ::send(m_fd.Get(), packet.data(), packet.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(packet.size());
}

bool UnixClient::SendWithDescriptors(std::string_view packet, const std::vector<int>& descriptors) const
{
    const std::size_t size = descriptors.size() * sizeof(int);
    std::vector<char> control(CMSG_SPACE(size));
    iovec content{const_cast<char*>(packet.data()), packet.size()};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(size);
    std::memcpy(CMSG_DATA(rights), descriptors.data(), size);
    return ::sendmsg(m_fd.Get(), &message, MSG_NOSIGNAL) == static_cast<ssize_t>(packet.size());
}

bool UnixClient::SendWithoutWaiting(std::string_view packet) const
{
    return ::send(m_fd.Get(), packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
           static_cast<ssize_t>(packet.size());
}

void UnixClient::ShutDownSending() const
{
    ::shutdown(m_fd.Get(), SHUT_WR);
}

std::optional<std::string> UnixClient::Receive(std::chrono::milliseconds timeout) const
{
    if (!WaitReadable(m_fd.Get(), Clock::now() + timeout)) {
        return std::nullopt;
    }
    std::vector<char> packet(PACKET_ROOM);
    const ssize_t size = ::recv(m_fd.Get(), packet.data(), packet.size(), MSG_DONTWAIT);
    if (size <= 0) {
        return std::nullopt;
    }
    return std::string(packet.data(), static_cast<std::size_t>(size));
}

std::optional<std::string> UnixClient::Ask(std::string_view packet, std::chrono::milliseconds timeout) const
{
    return Send(packet) ? Receive(timeout) : std::nullopt;
}

bool UnixClient::IsClosedByPeer(std::chrono::milliseconds timeout) const
{
    const auto end = Clock::now() + timeout;
    std::vector<char> packet(PACKET_ROOM);
    while (WaitReadable(m_fd.Get(), end)) {
        const ssize_t size = ::recv(m_fd.Get(), packet.data(), packet.size(), MSG_DONTWAIT);
        if (size == 0 || (size < 0 && errno != EAGAIN && errno != EINTR)) {
            return true;
        }
    }
    return false;
}
