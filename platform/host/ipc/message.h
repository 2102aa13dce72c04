#ifndef PLATFORM_HOST_IPC_MESSAGE_H
#define PLATFORM_HOST_IPC_MESSAGE_H

#include "common/wire.h"

#include <lumo.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

namespace HostPlatform {

using Common::MAX_CONTENT_SIZE;
using Common::MAX_PACKET_SIZE;

/// The type of every lumo_message of this platform. Used by one thread at a time. The content stands where the packet
/// has it, behind room for the header, so a message is received and sent in one piece. The string's own NUL is the one
/// that follows every content.
struct Message : lumo_message {
    /// A zero header and no content.
    Message() : lumo_message{}, packet(sizeof header, '\0') {}

    /// Valid until the packet changes.
    char* Content() { return packet.data() + sizeof header; }
    std::size_t ContentSize() const { return packet.size() - sizeof header; }

    /// Writes the content's length into the header. A caller's own value there is lost.
    void KeepLength() { header.length = static_cast<decltype(header.length)>(ContentSize()); }

    /// The message in the form of the wire; valid until its next change. Writes the header's length.
    std::string_view Packet()
    {
        KeepLength();
        std::memcpy(packet.data(), &header, sizeof header);
        return packet;
    }

    std::string packet;
};

/// Every lumo_message here was made by lumo_message_new or for a packet, so it is a Message. Null is not allowed.
inline Message& MessageOf(lumo_message* msg)
{
    return *static_cast<Message*>(msg);
}

struct MessagePut {
    void operator()(lumo_message* msg) const { lumo_message_put(msg); }
};

/// The only reference to a message. Nothing here shares a message: queues keep copies of packets.
using MessageReference = std::unique_ptr<Message, MessagePut>;

} // namespace HostPlatform

#endif
