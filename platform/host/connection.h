#ifndef PLATFORM_HOST_CONNECTION_H
#define PLATFORM_HOST_CONNECTION_H

#include "event_owner.h"
#include "message.h"
#include "unique_fd.h"

#include <bolt.h>

#include <cstddef>
#include <list>

namespace HostPlatform {

class Server;

/// One peer of a service. What breaks the rules is dropped: it is told nothing more, and goes when the loop comes round
/// to it, never under a callback that still uses it.
class Connection final : public bolt_connection {
public:
    using Place = std::list<Connection>::iterator;

    /// @throws std::bad_alloc
    Connection(Server& server, UniqueFd socket);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() = default;

    /// Begins to read, once the connection has its place in the server's list. False when the loop refuses.
    bool Begin(Place place);

    /// Sends at once, or keeps a reference and sends when the peer reads. False when the connection has been dropped,
    /// which a peer that lets too much pile up is here. Never blocks.
    bool Send(Message& msg);

    void Drop();

private:
    enum class Sending { DONE, LATER, FAILED };

    static void OnReadable(evutil_socket_t fd, short what, void* connection) noexcept;
    static void OnWritable(evutil_socket_t fd, short what, void* connection) noexcept;

    void Receive();
    void Handle(const void* packet, std::size_t size);
    void SendQueued();
    bool Queue(Message& msg);
    Sending SendNow(Message& msg);

    Server& m_server;
    UniqueFd m_socket;
    EventOwner m_readable;
    EventOwner m_writable;
    Place m_place;
    std::list<MessageReference> m_queue; // a list, for an empty one costs an idle connection nothing
    std::size_t m_queuedBytes = 0;
    bool m_dropped = false;
};

} // namespace HostPlatform

#endif
