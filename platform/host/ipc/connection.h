#ifndef PLATFORM_HOST_IPC_CONNECTION_H
#define PLATFORM_HOST_IPC_CONNECTION_H

#include "common/unique_fd.h"
#include "event_loop.h"
#include "event_owner.h"
#include "message.h"
#include "packet_queue.h"

#include <bolt.h>

#include <cstddef>
#include <list>
#include <string_view>

namespace HostPlatform {

class Connection;
using ConnectionPlace = std::list<Connection>::iterator;

/// What a connection needs of the service that it belongs to. All calls come on the loop's thread.
class ConnectionOwner {
public:
    ConnectionOwner() = default;
    ConnectionOwner(const ConnectionOwner&) = delete;
    ConnectionOwner& operator=(const ConnectionOwner&) = delete;
    virtual ~ConnectionOwner() = default;

    /// Hands a message to the service, which may drop the connection meanwhile. False when the service threw.
    virtual bool Deliver(Message& msg, Connection& connection) = 0;

    /// Destroys a connection, which makes this its last call.
    virtual void Forget(ConnectionPlace connection) = 0;

    /// Logs why a connection is dropped; a record now and then, however many there are.
    /// @param what the connection did, why it is dropped for that
    virtual void LogDrop(const char* what, const char* why) = 0;
};

/// One peer of a service. A peer that breaks the rules is dropped: nothing more is sent to it, and the connection is
/// destroyed when the loop comes round to it, never under a callback that still uses it. The loop's thread only.
class Connection final : public bolt_connection {
public:
    /// @param loop and owner outlive the connection
    /// @throws std::bad_alloc
    Connection(EventLoop& loop, ConnectionOwner& owner, Common::UniqueFd socket);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() = default;

    /// Begins to read, once the connection has its place in its owner's list. False when the loop refuses.
    bool Begin(ConnectionPlace place);

    /// Sends at once, or keeps a copy and sends that when the peer reads. Drops a peer that lets too much pile up.
    /// Never blocks. False when the connection is dropped, now or before.
    bool Send(Message& msg);

    /// Lets the connection go at the loop's next turn. What is queued is not sent. May be called again.
    void Drop();

private:
    enum class Sending { DONE, LATER, FAILED };

    static void OnReadable(evutil_socket_t fd, short what, void* connection) noexcept;
    static void OnWritable(evutil_socket_t fd, short what, void* connection) noexcept;

    void Receive();
    void Handle(const void* packet, std::size_t size);
    void EndAfterReplies();
    void SendQueued();
    bool Queue(std::string_view packet);
    Sending SendNow(std::string_view packet);

    EventLoop& m_loop;
    ConnectionOwner& m_owner;
    Common::UniqueFd m_socket;
    EventOwner m_readable;
    EventOwner m_writable;
    ConnectionPlace m_place; // in the owner's list, once Begin was called
    PacketQueue m_queue;
    bool m_isEnding = false; // nothing more is read; dropped when the queue is empty
    bool m_dropped = false;
};

} // namespace HostPlatform

#endif
