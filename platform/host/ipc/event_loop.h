#ifndef PLATFORM_HOST_IPC_EVENT_LOOP_H
#define PLATFORM_HOST_IPC_EVENT_LOOP_H

#include "event_owner.h"
#include "packet.h"

#include <array>

namespace HostPlatform {

/// The event library's loop, and what everything on it shares. Only the loop's thread uses it. Outlives all that stands
/// on it.
class EventLoop {
public:
    /// Makes the library's loop. False, with the reason in the log, on failure.
    bool Open();

    /// Only after Open has succeeded.
    event_base& Base() { return *m_base; }

    /// Where every connection receives: one packet is handled before the next is read, so one buffer is enough for all.
    std::array<unsigned char, MAX_PACKET_SIZE>& ReceiveBuffer() { return m_receiveBuffer; }

private:
    EventBaseOwner m_base;
    std::array<unsigned char, MAX_PACKET_SIZE> m_receiveBuffer; // not cleared: unused pages cost nothing
};

} // namespace HostPlatform

#endif
