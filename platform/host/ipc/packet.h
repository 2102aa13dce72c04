#ifndef PLATFORM_HOST_IPC_PACKET_H
#define PLATFORM_HOST_IPC_PACKET_H

#include "message.h"

#include <cstddef>

/// The wire: one packet is one message, its header as it is in memory and then the content.
namespace HostPlatform {

/// Checks a packet of size bytes. A packet over MAX_PACKET_SIZE is not read, so its memory may be shorter.
/// @return the fault in words for the log, static; null when the packet is sound
const char* PacketFault(const void* packet, std::size_t size);

/// The message of a sound packet, with a copy of its bytes; empty when out of memory.
MessageReference MessageOfPacket(const void* packet, std::size_t size);

} // namespace HostPlatform

#endif
