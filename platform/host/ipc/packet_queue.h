#ifndef PLATFORM_HOST_IPC_PACKET_QUEUE_H
#define PLATFORM_HOST_IPC_PACKET_QUEUE_H

#include <cstddef>
#include <string>
#include <string_view>

namespace HostPlatform {

/// Packets that wait for their peer to read. They stand one behind the other as they go over the wire, so they cost as
/// much memory as they hold. With the messages themselves in the queue, a peer that asks in big packets and reads none
/// of the small answers would make the server keep the big ones. An empty queue has no heap. Used by one thread at a
/// time.
class PacketQueue {
public:
    bool IsEmpty() const { return m_begin == m_bytes.size(); }

    /// Whether the packet may wait beside those that do: 1 MiB in all.
    bool HasRoomFor(std::size_t size) const;

    /// @param packet a sound one, for it is found again by its length field
    /// @throws std::bad_alloc the queue is as it was
    void Append(std::string_view packet);

    /// The packet that has waited longest; valid until the next change. The queue is not empty.
    std::string_view First() const;
    /// The queue is not empty.
    void RemoveFirst();

    /// Removes all packets and frees their memory.
    void Clear();

private:
    std::string m_bytes;
    std::size_t m_begin = 0; // of the first packet
};

} // namespace HostPlatform

#endif
