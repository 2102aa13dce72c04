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

    /// Passes a message to the service, which may send on the connection or drop it meanwhile. The message stays the
    /// caller's. False when the service threw; the caller then drops the connection.
    virtual bool Deliver(Message& msg, Connection& connection) = 0;

    /// Destroys the connection. It must not touch itself after this call.
    virtual void Forget(ConnectionPlace connection) = 0;

    /// Logs why a connection is dropped. At most one record a second, which counts those left out.
    /// @param what the end of the sentence "a peer ..."; why the reason, in words
    virtual void LogDrop(const char* what, const char* why) = 0;
};

/// One peer of a service. A peer that breaks the rules is dropped: nothing more is sent to it. The loop destroys the
/// connection in its next round, never under a callback that still uses it. The loop's thread only.
class Connection final : public bolt_connection {
public:
    /// @param loop and owner outlive the connection
    /// @throws std::bad_alloc
    Connection(EventLoop& loop, ConnectionOwner& owner, Common::UniqueFd socket);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() = default;

    /// Begins to read. Called once, when the connection has its place in its owner's list.
    /// @return false when the loop does not take it; the owner then destroys the connection
    bool Begin(ConnectionPlace place);

    /// Sends at once, or keeps a copy and sends that when the peer reads. Never blocks. Drops a peer that leaves more
    /// than 1 MiB unread, with a record. False when the connection is dropped, now or before.
    /// @param msg stays the caller's; its header gets the content's length
    bool Send(Message& msg);

    /// Ends the connection in the loop's next round. Queued packets are not sent. A second call does nothing.
    void Drop();

private:
    /// LATER: the peer's buffer is full. FAILED: the peer is gone, or the reason is logged.
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
