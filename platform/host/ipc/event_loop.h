#ifndef PLATFORM_HOST_IPC_EVENT_LOOP_H
#define PLATFORM_HOST_IPC_EVENT_LOOP_H

#include "event_owner.h"
#include "packet.h"

#include <array>

namespace HostPlatform {

/// The event library's loop, and what everything on it shares. Only the loop's thread uses it, and the library takes no
/// lock. It must outlive every event, timer and connection on it.
class EventLoop {
public:
    /// Makes the library's loop; its warnings go to the log from now on. False, with the reason in the log, on failure.
    bool Open();

    /// Only after Open has succeeded.
    event_base& Base() { return *m_base; }

    /// The buffer of all connections: each packet is handled before the next is read. Its content is valid until the
    /// callback returns.
    std::array<unsigned char, MAX_PACKET_SIZE>& ReceiveBuffer() { return m_receiveBuffer; }

private:
    EventBaseOwner m_base;
    std::array<unsigned char, MAX_PACKET_SIZE> m_receiveBuffer; // not cleared: unused pages cost nothing
};

} // namespace HostPlatform

#endif
