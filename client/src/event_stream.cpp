#include "client/src/event_stream.h"

#include <cstring>

namespace BundleClient {

EventMessage EmptyEvent()
{
    EventMessage message{};
    message.header.length = sizeof message.record;
    message.header.method = SystemServer::EVENT_METHOD;
    return message;
}

bool EventStream::Next(SystemServer::EventRecord& record)
{
    const lumo_header header = EmptyEvent().header;
    const void* const found = ::memmem(m_bytes, m_size, &header, sizeof header);
    if (found == nullptr) {
        // An event may still begin in the last few bytes.
        const std::size_t held = m_size < sizeof header ? m_size : sizeof header - 1;
        Skip(m_size - held);
        return false;
    }
    Skip(static_cast<std::size_t>(static_cast<const char*>(found) - m_bytes));
    if (m_size < sizeof(EventMessage)) {
        return false;
    }
    std::memcpy(&record, m_bytes + sizeof header, sizeof record);
    Remove(sizeof(EventMessage));
    return true;
}

std::size_t EventStream::TakeSkipped()
{
    const std::size_t skipped = m_skipped;
    m_skipped = 0;
    return skipped;
}

void EventStream::Skip(std::size_t count)
{
    m_skipped += count;
    Remove(count);
}

void EventStream::Remove(std::size_t count)
{
    m_size -= count;
    std::memmove(m_bytes, m_bytes + count, m_size);
}

} // namespace BundleClient
