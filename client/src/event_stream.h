#ifndef CLIENT_EVENT_STREAM_H
#define CLIENT_EVENT_STREAM_H

#include <algapp_bolt_comm.h>
#include <lumo.h>

#include <cstddef>

namespace BundleClient {

/// An event as it is on the wire.
struct EventMessage {
    lumo_header header;
    SystemServer::EventRecord record;
};
static_assert(sizeof(EventMessage) == 72, "an event has no padding");

/// An event without names, its header filled in.
EventMessage EmptyEvent();

/// Extracts events from the bytes of the FIFO. An event is written at once and arrives in one piece, but a FIFO does
/// not separate the bytes of two programs. After bytes that are not an event, the next event is found by its header.
class EventStream {
public:
    /// How many bytes to read at once: whole events, so that other readers of the FIFO also get whole events.
    static constexpr std::size_t READ_SIZE = 56 * sizeof(EventMessage);

    /// Room for READ_SIZE bytes. Only after Next has found no event.
    char* Room() { return m_bytes + m_size; }
    /// @param size how many of them have been filled
    void Added(std::size_t size) { m_size += size; }

    /// Removes the next event from the stream. False when no complete one is there.
    bool Next(SystemServer::EventRecord& record);

    /// Called when the FIFO is empty. The remaining bytes then are not the beginning of an event, and are skipped.
    void DropRest() { Skip(m_size); }

    /// The number of bytes since the last call that were not part of an event.
    std::size_t TakeSkipped();

private:
    void Skip(std::size_t count);
    void Remove(std::size_t count);

    char m_bytes[READ_SIZE + sizeof(EventMessage)] = {};
    std::size_t m_size = 0;
    std::size_t m_skipped = 0;
};

} // namespace BundleClient

#endif
