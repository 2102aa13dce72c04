#include "packet_queue.h"

#include <lumo.h>

#include <cstring>

namespace HostPlatform {

namespace {

/// The replies that a peer may leave unread.
constexpr std::size_t MAX_BYTES = std::size_t{1024} * 1024;

} // namespace

bool PacketQueue::HasRoomFor(std::size_t size) const
{
    return size <= MAX_BYTES - (m_bytes.size() - m_begin);
}

void PacketQueue::Append(std::string_view packet)
{
    // Once in as many bytes as are moved, so that a queue which is never quite empty neither grows nor costs much.
    if (m_begin > m_bytes.size() / 2) {
        m_bytes.erase(0, m_begin);
        m_begin = 0;
    }
    m_bytes.append(packet);
}

std::string_view PacketQueue::First() const
{
    lumo_header header{};
    std::memcpy(&header, m_bytes.data() + m_begin, sizeof header);
    return std::string_view(m_bytes).substr(m_begin, sizeof header + header.length);
}

void PacketQueue::RemoveFirst()
{
    m_begin += First().size();
    if (IsEmpty()) {
        Clear();
    }
}

void PacketQueue::Clear()
{
    m_bytes = std::string();
    m_begin = 0;
}

} // namespace HostPlatform
