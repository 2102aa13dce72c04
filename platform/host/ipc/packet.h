#ifndef PLATFORM_HOST_IPC_PACKET_H
#define PLATFORM_HOST_IPC_PACKET_H

#include "message.h"

#include <cstddef>

/// The wire: one packet is one message, the header as it is in memory and then the content.
namespace HostPlatform {

/// What is broken about a packet of size bytes, in words for the log; null when it is sound. Of a packet over
/// MAX_PACKET_SIZE nothing is read.
const char* PacketFault(const void* packet, std::size_t size);

/// The message of a sound packet; empty when out of memory.
MessageReference MessageOfPacket(const void* packet, std::size_t size);

} // namespace HostPlatform

#endif
