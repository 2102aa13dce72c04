#include "packet.h"

#include <cstring>
#include <new>

namespace HostPlatform {

const char* PacketFault(const void* packet, std::size_t size)
{
    lumo_header header{};
    if (size < sizeof header) {
        return "shorter than a header";
    }
    if (size > MAX_PACKET_SIZE) {
        return "longer than 64 KiB";
    }
    std::memcpy(&header, packet, sizeof header);
    return header.length == size - sizeof header ? nullptr : "its length field is not its content's length";
}

MessageReference MessageOfPacket(const void* packet, std::size_t size)
{
    try {
        MessageReference msg(new Message);
        std::memcpy(&msg->header, packet, sizeof msg->header);
        msg->packet.assign(static_cast<const char*>(packet), size);
        return msg;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

} // namespace HostPlatform
