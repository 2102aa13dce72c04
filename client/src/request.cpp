#include "client/include/bundle_client.h"
#include "client/src/deadline.h"
#include "client/src/no_cancellation.h"
#include "common/service_directory.h"
#include "common/unique_fd.h"
#include "common/wire.h"

#include <bundle_service.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace {

using BundleClient::Deadline;
using Common::UniqueFd;
using namespace SystemServer::BundleService;

// Whether a call failed because of a timeout in the kernel or a signal. It is then tried again while time is left.
bool IsWorthAnotherTry(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

sockaddr_un AddressOfTheService()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    static_assert(sizeof Common::SERVICE_DIRECTORY + sizeof SERVICE_NAME <= sizeof address.sun_path);
    std::memcpy(address.sun_path, Common::SERVICE_DIRECTORY, sizeof Common::SERVICE_DIRECTORY - 1);
    address.sun_path[sizeof Common::SERVICE_DIRECTORY - 1] = '/';
    std::memcpy(address.sun_path + sizeof Common::SERVICE_DIRECTORY, SERVICE_NAME, sizeof SERVICE_NAME);
    return address;
}

/// Sets the time limit of the next call that connects or sends.
void LimitSending(const UniqueFd& socket, const Deadline& deadline)
{
    const timeval limit = deadline.ForSocket();
    ::setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

int Connect(UniqueFd& socket, const Deadline& deadline)
{
    socket.Reset(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!socket.IsOpen()) {
        return BUNDLE_CLIENT_SYSTEM;
    }
    const sockaddr_un address = AddressOfTheService();
    // If the server's queue of new connections is full, the call waits.
    do {
        LimitSending(socket, deadline);
        if (::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
            return BUNDLE_CLIENT_OK;
        }
        if (!IsWorthAnotherTry(errno)) {
            return BUNDLE_CLIENT_UNREACHABLE;
        }
    } while (!deadline.IsOver());
    return BUNDLE_CLIENT_TIMEOUT;
}

int Send(const UniqueFd& socket, const lumo_header& header, const void* content, const Deadline& deadline)
{
    iovec parts[] = {{const_cast<lumo_header*>(&header), sizeof header}, {const_cast<void*>(content), header.length}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = sizeof parts / sizeof *parts;
    do {
        LimitSending(socket, deadline);
        // A packet is sent completely or not at all.
        if (::sendmsg(socket.Get(), &message, MSG_NOSIGNAL) >= 0) {
            return BUNDLE_CLIENT_OK;
        }
        if (errno == EPIPE || errno == ECONNRESET) {
            return BUNDLE_CLIENT_CLOSED;
        }
        if (!IsWorthAnotherTry(errno)) {
            return BUNDLE_CLIENT_SYSTEM;
        }
    } while (!deadline.IsOver());
    return BUNDLE_CLIENT_TIMEOUT;
}

/// Checks a packet's size and header.
int CheckReply(std::size_t size, const lumo_header& header)
{
    if (size < sizeof header) {
        return BUNDLE_CLIENT_SHORT_REPLY;
    }
    if (header.length != size - sizeof header) {
        return BUNDLE_CLIENT_WRONG_LENGTH;
    }
    return (header.method & RESPONSE_FLAG) != 0 ? BUNDLE_CLIENT_OK : BUNDLE_CLIENT_NOT_A_REPLY;
}

int Receive(const UniqueFd& socket, lumo_header& reply, const Deadline& deadline)
{
    for (;;) {
        // With this flag, the call returns the whole packet's size. Only the header is needed.
        const ssize_t size = ::recv(socket.Get(), &reply, sizeof reply, MSG_DONTWAIT | MSG_TRUNC);
        if (size > 0) {
            return CheckReply(static_cast<std::size_t>(size), reply);
        }
        if (size == 0 || errno == ECONNRESET) {
            return BUNDLE_CLIENT_CLOSED;
        }
        if (!IsWorthAnotherTry(errno)) {
            return BUNDLE_CLIENT_SYSTEM;
        }
        pollfd readable{socket.Get(), POLLIN, 0};
        if (::poll(&readable, 1, deadline.ForPoll()) < 0 && errno != EINTR) {
            return BUNDLE_CLIENT_SYSTEM;
        }
        if (readable.revents == 0 && deadline.IsOver()) {
            return BUNDLE_CLIENT_TIMEOUT;
        }
    }
}

int Ask(const lumo_header& request, const void* content, const Deadline& deadline, lumo_header& reply)
{
    UniqueFd socket;
    int result = Connect(socket, deadline);
    if (result == BUNDLE_CLIENT_OK) {
        result = Send(socket, request, content, deadline);
    }
    if (result == BUNDLE_CLIENT_OK) {
        result = Receive(socket, reply, deadline);
    }
    return result;
}

int CodeOf(unsigned status)
{
    switch (status) {
    case STATUS_OK:
        return BUNDLE_CLIENT_OK;
    case STATUS_BAD_REQUEST:
        return BUNDLE_CLIENT_FAILED;
    case STATUS_NOT_FOUND:
        return BUNDLE_CLIENT_UNKNOWN_BUNDLE;
    default:
        return BUNDLE_CLIENT_UNKNOWN_STATUS;
    }
}

} // namespace

int bundle_client_request(unsigned method, const void* content, size_t size, int timeout, unsigned* status)
{
    if (method > METHOD_MASK || size > Common::MAX_CONTENT_SIZE || (content == nullptr && size != 0)) {
        return BUNDLE_CLIENT_INVALID;
    }
    lumo_header request{};
    request.length = static_cast<decltype(request.length)>(size);
    request.method = static_cast<decltype(request.method)>(method);
    request.uri = URI;
    lumo_header reply{};
    const BundleClient::NoCancellation noCancellation;
    const int result = Ask(request, content, Deadline(timeout), reply);
    if (result == BUNDLE_CLIENT_OK && status != nullptr) {
        *status = reply.status;
    }
    return result;
}

int bundle_client_server(int timeout, pid_t* process)
{
    const BundleClient::NoCancellation noCancellation;
    UniqueFd socket;
    const int result = Connect(socket, Deadline(timeout));
    if (result == BUNDLE_CLIENT_OK && process != nullptr) {
        ucred server{};
        socklen_t size = sizeof server;
        *process = ::getsockopt(socket.Get(), SOL_SOCKET, SO_PEERCRED, &server, &size) == 0 ? server.pid : 0;
    }
    return result;
}

int bundle_client_delete(const char* name, int timeout)
{
    char field[NAME_FIELD_SIZE] = {};
    static_assert(sizeof field == BUNDLE_CLIENT_NAME_MAX + 1);
    const std::size_t length = name != nullptr ? ::strnlen(name, sizeof field) : 0;
    if (length == 0 || length == sizeof field) {
        return BUNDLE_CLIENT_INVALID;
    }
    std::memcpy(field, name, length);
    unsigned status = 0;
    const int result = bundle_client_request(METHOD_DELETE_BUNDLE, field, sizeof field, timeout, &status);
    return result == BUNDLE_CLIENT_OK ? CodeOf(status) : result;
}
