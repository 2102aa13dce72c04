#ifndef PLATFORM_HOST_IPC_PACKET_QUEUE_H
#define PLATFORM_HOST_IPC_PACKET_QUEUE_H

#include <cstddef>
#include <string>
#include <string_view>

namespace HostPlatform {

/// Packets that wait for their peer to read. They stand one behind the other as they go over the wire, so that what
/// they cost is what they hold: a peer that asks in big packets and reads none of the small answers would otherwise
/// have the server keep the big ones. An empty queue has no heap.
class PacketQueue {
public:
    bool IsEmpty() const { return m_begin == m_bytes.size(); }

    /// Whether the packet may wait beside those that do: 1 MiB in all.
    bool HasRoomFor(std::size_t size) const;

    /// @param packet a sound one, for it is found again by its length field
    /// @throws std::bad_alloc the queue is as it was
    void Append(std::string_view packet);

    /// Valid until the next change.
    std::string_view First() const;
    void RemoveFirst();

    void Clear();

private:
    std::string m_bytes;
    std::size_t m_begin = 0; // of the first packet
};

} // namespace HostPlatform

#endif
