#include "connection.h"

#include "event_manager.h"
#include "host_log.h"
#include "packet.h"
#include "server.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

namespace HostPlatform {

namespace {

/// The replies that a peer may leave unread.
constexpr std::size_t MAX_QUEUED_BYTES = std::size_t{1024} * 1024;

} // namespace

Connection::Connection(Server& server, UniqueFd socket)
    : bolt_connection{socket.Get()}, m_server(server), m_socket(std::move(socket)),
      m_readable(NewEvent(server.Manager().Base(), fd, EV_READ | EV_PERSIST, OnReadable, this)),
      m_writable(NewEvent(server.Manager().Base(), fd, EV_WRITE | EV_PERSIST, OnWritable, this))
{}

bool Connection::Begin(Place place)
{
    m_place = place;
    return event_add(m_readable.get(), nullptr) == 0;
}

void Connection::OnReadable(evutil_socket_t /*fd*/, short /*what*/, void* connection) noexcept
{
    auto& self = *static_cast<Connection*>(connection);
    if (self.m_dropped) {
        self.m_server.Forget(self.m_place);
        return;
    }
    self.Receive();
}

void Connection::OnWritable(evutil_socket_t /*fd*/, short /*what*/, void* connection) noexcept
{
    auto& self = *static_cast<Connection*>(connection);
    if (!self.m_dropped) {
        self.SendQueued();
    }
}

/// One packet for each time that the loop comes round, so that a busy peer does not keep the others waiting.
void Connection::Receive()
{
    auto& buffer = m_server.Manager().ReceiveBuffer();
    const ssize_t size = ::recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    // An empty packet cannot be told from the peer's end; either closes the connection without a word.
    if (size <= 0) {
        Drop();
        return;
    }
    Handle(buffer.data(), static_cast<std::size_t>(size));
}

void Connection::Handle(const void* packet, std::size_t size)
{
    if (const char* fault = PacketFault(packet, size)) {
        m_server.LogDrop("sent a broken packet", fault);
        Drop();
        return;
    }
    const MessageReference msg = MessageOfPacket(packet, size);
    if (!msg) {
        m_server.LogDrop("cannot be served", "out of memory");
        Drop();
        return;
    }
    if (!m_server.Deliver(*msg, *this)) {
        Drop();
    }
}

bool Connection::Send(Message& msg)
{
    if (m_dropped) {
        return false;
    }
    switch (m_queue.empty() ? SendNow(msg) : Sending::LATER) {
    case Sending::DONE:
        return true;
    case Sending::LATER:
        return Queue(msg);
    case Sending::FAILED:
        break;
    }
    Drop();
    return false;
}

bool Connection::Queue(Message& msg)
{
    if (msg.packet.size() > MAX_QUEUED_BYTES - m_queuedBytes) {
        m_server.LogDrop("does not read", "more than 1 MiB of replies wait");
        Drop();
        return false;
    }
    try {
        m_queue.push_back(Share(msg));
    } catch (const std::bad_alloc&) {
        m_server.LogDrop("cannot be answered", "out of memory");
        Drop();
        return false;
    }
    m_queuedBytes += msg.packet.size();
    if (event_add(m_writable.get(), nullptr) != 0) {
        Drop();
        return false;
    }
    return true;
}

void Connection::SendQueued()
{
    while (!m_queue.empty()) {
        Message& msg = *m_queue.front();
        const Sending sending = SendNow(msg);
        if (sending == Sending::LATER) {
            return;
        }
        if (sending == Sending::FAILED) {
            Drop();
            return;
        }
        m_queuedBytes -= msg.packet.size();
        m_queue.pop_front();
    }
    event_del(m_writable.get());
}

Connection::Sending Connection::SendNow(Message& msg)
{
    const std::string_view packet = msg.Packet();
    ssize_t sent = 0;
    do {
        sent = ::send(fd, packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent >= 0) {
        return Sending::DONE;
    }
    if (errno == EAGAIN) {
        return Sending::LATER;
    }
    if (errno != EPIPE && errno != ECONNRESET) {
        m_server.LogDrop("cannot be sent a reply", std::strerror(errno));
    }
    return Sending::FAILED;
}

void Connection::Drop()
{
    if (m_dropped) {
        return;
    }
    m_dropped = true;
    m_queue.clear();
    event_del(m_writable.get());
    event_active(m_readable.get(), EV_READ, 0);
}

} // namespace HostPlatform
