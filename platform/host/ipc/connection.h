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

/// What a connection needs of the service that it belongs to.
class ConnectionOwner {
public:
    ConnectionOwner() = default;
    ConnectionOwner(const ConnectionOwner&) = delete;
    ConnectionOwner& operator=(const ConnectionOwner&) = delete;
    virtual ~ConnectionOwner() = default;

    /// Hands a message to the service. False when the service threw.
    virtual bool Deliver(Message& msg, Connection& connection) = 0;

    /// Ends a connection: destroys it.
    virtual void Forget(ConnectionPlace connection) = 0;

    /// Writes into the log why a connection is dropped.
    virtual void LogDrop(const char* what, const char* why) = 0;
};

/// One peer of a service. What breaks the rules is dropped: it is told nothing more, and goes when the loop comes round
/// to it, never under a callback that still uses it.
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

    /// Sends at once, or keeps a copy and sends that when the peer reads. False when the connection has been dropped,
    /// which a peer that lets too much pile up is here. Never blocks.
    bool Send(Message& msg);

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
    ConnectionPlace m_place;
    PacketQueue m_queue;
    bool m_isEnding = false; // nothing more is read; dropped when the queue is empty
    bool m_dropped = false;
};

} // namespace HostPlatform

#endif
