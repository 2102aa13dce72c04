#include "service_client.h"

#include "common/service_directory.h"

#include <bundle_service.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

namespace {

using std::chrono::milliseconds;

constexpr std::size_t MAX_PACKET_SIZE = 65536;

/// What is left until end, rounded up, so that a wait for it does not come back too early.
milliseconds Left(std::chrono::steady_clock::time_point end)
{
    return std::max(std::chrono::ceil<milliseconds>(end - std::chrono::steady_clock::now()), milliseconds(0));
}

} // namespace

ServiceClient::ServiceClient(std::string_view service)
    : m_path(std::string(Common::SERVICE_DIRECTORY) + '/' + std::string(service))
{}

ServiceClient::Outcome ServiceClient::Ask(std::uint8_t method, std::string_view content, milliseconds limit)
{
    const Clock::time_point end = Clock::now() + limit;
    Outcome outcome = Connect(limit);
    if (outcome == Outcome::ANSWERED) {
        outcome = Send(method, content);
    }
    if (outcome == Outcome::ANSWERED) {
        outcome = Receive(end);
    }
    m_socket.Reset();
    return outcome;
}

ServiceClient::Outcome ServiceClient::Connect(milliseconds limit)
{
    if (m_socket.IsOpen()) {
        return Outcome::ANSWERED;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (m_path.size() >= sizeof address.sun_path) {
        return Fail(Outcome::UNREACHABLE, "the name is too long for a socket");
    }
    m_path.copy(address.sun_path, m_path.size());

    Common::UniqueFd connection(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!connection.IsOpen()) {
        return Fail(Outcome::UNREACHABLE, std::strerror(errno));
    }
    // A server whose queue of new connections is full lets a peer wait; a limit of zero would mean none.
    const milliseconds left = std::max(limit, milliseconds(1));
    const timeval time{static_cast<time_t>(left.count() / 1000), static_cast<suseconds_t>(left.count() % 1000 * 1000)};
    ::setsockopt(connection.Get(), SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
    if (::connect(connection.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        m_socket = std::move(connection);
        return Outcome::ANSWERED;
    }
    if (errno == EAGAIN) {
        return Outcome::NO_ANSWER;
    }
    return Fail(errno == EACCES ? Outcome::REFUSED : Outcome::UNREACHABLE, std::strerror(errno));
}

pid_t ServiceClient::Server() const
{
    ucred server{};
    socklen_t size = sizeof server;
    return ::getsockopt(m_socket.Get(), SOL_SOCKET, SO_PEERCRED, &server, &size) == 0 ? server.pid : 0;
}

ServiceClient::Outcome ServiceClient::Send(std::uint8_t method, std::string_view content)
{
    lumo_header header{};
    header.length = static_cast<decltype(header.length)>(content.size());
    header.method = method;
    header.uri = SystemServer::BundleService::URI;
    std::string packet(sizeof header, '\0');
    std::memcpy(packet.data(), &header, sizeof header);
    packet += content;

    const ssize_t sent = ::send(m_socket.Get(), packet.data(), packet.size(), MSG_NOSIGNAL);
    if (sent == static_cast<ssize_t>(packet.size())) {
        return Outcome::ANSWERED;
    }
    if (errno == EAGAIN) {
        return Outcome::NO_ANSWER;
    }
    return errno == EPIPE || errno == ECONNRESET ? Outcome::CLOSED : Fail(Outcome::UNREACHABLE, std::strerror(errno));
}

ServiceClient::Outcome ServiceClient::Receive(Clock::time_point end)
{
    pollfd readable{m_socket.Get(), POLLIN, 0};
    int ready = 0;
    do {
        ready = ::poll(&readable, 1, static_cast<int>(Left(end).count()));
    } while (ready < 0 && errno == EINTR);
    if (ready == 0) {
        return Outcome::NO_ANSWER;
    }
    std::vector<char> packet(MAX_PACKET_SIZE);
    const ssize_t size = ::recv(m_socket.Get(), packet.data(), packet.size(), MSG_DONTWAIT);
    if (size == 0 || (size < 0 && errno == ECONNRESET)) {
        return Outcome::CLOSED;
    }
    if (size < 0) {
        return Fail(Outcome::BROKEN, std::strerror(errno));
    }
    return Read({packet.data(), static_cast<std::size_t>(size)});
}

ServiceClient::Outcome ServiceClient::Read(std::string_view packet)
{
    using namespace SystemServer::BundleService;
    lumo_header& header = m_reply.header;
    if (packet.size() < sizeof header) {
        return Fail(Outcome::BROKEN, "it is shorter than a header");
    }
    std::memcpy(&header, packet.data(), sizeof header);
    m_reply.content = packet.substr(sizeof header);
    if (header.length != m_reply.content.size()) {
        return Fail(Outcome::BROKEN, "its length field is not its content's length");
    }
    // A reply does not repeat its request's method: there is one request under way, and this is its answer.
    if ((header.method & RESPONSE_FLAG) == 0) {
        return Fail(Outcome::BROKEN, "it is no response");
    }
    return Outcome::ANSWERED;
}

ServiceClient::Outcome ServiceClient::Fail(Outcome outcome, std::string reason)
{
    m_reason = std::move(reason);
    return outcome;
}
