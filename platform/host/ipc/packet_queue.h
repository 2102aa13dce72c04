#ifndef PLATFORM_HOST_IPC_PACKET_QUEUE_H
#define PLATFORM_HOST_IPC_PACKET_QUEUE_H

#include <cstddef>
#include <string>
#include <string_view>

namespace HostPlatform {

/// Packets that wait for their peer to read. The queue stores their bytes one behind the other, so they cost only the
/// memory of the replies. A queue of messages would keep the big requests of a peer that reads none of its small
/// replies. An empty queue has no heap. Used by one thread at a time.
class PacketQueue {
public:
    bool IsEmpty() const { return m_begin == m_bytes.size(); }

    /// Whether a packet of size bytes fits: all that wait may have 1 MiB. Append itself does not check it.
    bool HasRoomFor(std::size_t size) const;

    /// Appends a copy.
    /// @param packet must be sound, because its length field shows where it ends
    /// @throws std::bad_alloc the queue is unchanged
    void Append(std::string_view packet);

    /// The packet that has waited longest; valid until the next change. The queue must not be empty.
    std::string_view First() const;
    /// Frees the memory when it was the last one. The queue must not be empty.
    void RemoveFirst();

    /// Removes all packets and frees their memory.
    void Clear();

private:
    std::string m_bytes;
    std::size_t m_begin = 0; // of the first packet
};

} // namespace HostPlatform

#endif
