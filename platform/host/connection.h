#ifndef PLATFORM_HOST_CONNECTION_H
#define PLATFORM_HOST_CONNECTION_H

#include "common/unique_fd.h"
#include "event_owner.h"
#include "message.h"
#include "packet_queue.h"

#include <bolt.h>

#include <cstddef>
#include <list>
#include <string_view>

namespace HostPlatform {

class Server;

/// One peer of a service. What breaks the rules is dropped: it is told nothing more, and goes when the loop comes round
/// to it, never under a callback that still uses it.
class Connection final : public bolt_connection {
public:
    using Place = std::list<Connection>::iterator;

    /// @throws std::bad_alloc
    Connection(Server& server, Common::UniqueFd socket);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() = default;

    /// Begins to read, once the connection has its place in the server's list. False when the loop refuses.
    bool Begin(Place place);

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

    Server& m_server;
    Common::UniqueFd m_socket;
    EventOwner m_readable;
    EventOwner m_writable;
    Place m_place;
    PacketQueue m_queue;
    bool m_isEnding = false; // nothing more is read; dropped when the queue is empty
    bool m_dropped = false;
};

} // namespace HostPlatform

#endif
