#include "connection.h"

#include "packet.h"
#include "platform/host/log/host_log.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace HostPlatform {

using Common::UniqueFd;

Connection::Connection(EventLoop& loop, ConnectionOwner& owner, UniqueFd socket)
    : bolt_connection{socket.Get()}, m_loop(loop), m_owner(owner), m_socket(std::move(socket)),
      m_readable(NewEvent(loop.Base(), fd, EV_READ | EV_PERSIST, OnReadable, this)),
      m_writable(NewEvent(loop.Base(), fd, EV_WRITE | EV_PERSIST, OnWritable, this))
{}

bool Connection::Begin(ConnectionPlace place)
{
    m_place = place;
    return event_add(m_readable.get(), nullptr) == 0;
}

void Connection::OnReadable(evutil_socket_t /*fd*/, short /*what*/, void* connection) noexcept
{
    auto& self = *static_cast<Connection*>(connection);
    if (self.m_dropped) {
        self.m_owner.Forget(self.m_place);
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

/// One packet in each round of the loop, so that a busy peer does not delay the others.
void Connection::Receive()
{
    auto& buffer = m_loop.ReceiveBuffer();
    const ssize_t size = ::recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    // An empty packet looks like the peer's end. Either closes the connection without a record.
    if (size == 0) {
        EndAfterReplies();
        return;
    }
    if (size < 0) {
        Drop();
        return;
    }
    Handle(buffer.data(), static_cast<std::size_t>(size));
}

void Connection::Handle(const void* packet, std::size_t size)
{
    if (const char* fault = PacketFault(packet, size)) {
        m_owner.LogDrop("sent a broken packet", fault);
        Drop();
        return;
    }
    const MessageReference msg = MessageOfPacket(packet, size);
    if (!msg) {
        m_owner.LogDrop("cannot be served", "out of memory");
        Drop();
        return;
    }
    if (!m_owner.Deliver(*msg, *this)) {
        Drop();
    }
}

/// A peer that has only shut down its sending still gets the pending replies.
void Connection::EndAfterReplies()
{
    if (m_queue.IsEmpty()) {
        Drop();
        return;
    }
    m_isEnding = true;
    event_del(m_readable.get());
}

bool Connection::Send(Message& msg)
{
    if (m_dropped) {
        return false;
    }
    const std::string_view packet = msg.Packet();
    switch (m_queue.IsEmpty() ? SendNow(packet) : Sending::LATER) {
    case Sending::DONE:
        return true;
    case Sending::LATER:
        return Queue(packet);
    case Sending::FAILED:
        break;
    }
    Drop();
    return false;
}

bool Connection::Queue(std::string_view packet)
{
    if (!m_queue.HasRoomFor(packet.size())) {
        m_owner.LogDrop("does not read", "more than 1 MiB of replies wait");
        Drop();
        return false;
    }
    try {
        m_queue.Append(packet);
    } catch (const std::bad_alloc&) {
        m_owner.LogDrop("cannot be answered", "out of memory");
        Drop();
        return false;
    }
    if (event_add(m_writable.get(), nullptr) != 0) {
        m_owner.LogDrop("cannot be answered", "the event loop does not take it");
        Drop();
        return false;
    }
    return true;
}

void Connection::SendQueued()
{
    while (!m_queue.IsEmpty()) {
        const Sending sending = SendNow(m_queue.First());
        if (sending == Sending::LATER) {
            return;
        }
        if (sending == Sending::FAILED) {
            Drop();
            return;
        }
        m_queue.RemoveFirst();
    }
    event_del(m_writable.get());
    if (m_isEnding) {
        Drop();
    }
}

Connection::Sending Connection::SendNow(std::string_view packet)
{
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
        m_owner.LogDrop("cannot be sent a reply", std::strerror(errno));
    }
    return Sending::FAILED;
}

void Connection::Drop()
{
    if (m_dropped) {
        return;
    }
    m_dropped = true;
    m_queue.Clear();
    event_del(m_writable.get());
    event_active(m_readable.get(), EV_READ, 0);
}

} // namespace HostPlatform
