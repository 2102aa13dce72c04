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

/// What every lumo_message of this platform is. Used by one thread at a time. The content stands where the packet has
/// it, behind room for the header, so that a message is received and sent in one piece; the string's NUL is the one
/// that stands behind every content.
struct Message : lumo_message {
    Message() : lumo_message{}, packet(sizeof header, '\0') {}

    /// Valid until the packet changes.
    char* Content() { return packet.data() + sizeof header; }
    std::size_t ContentSize() const { return packet.size() - sizeof header; }

    /// Writes the content's length into the header, whatever a caller has written there.
    void KeepLength() { header.length = static_cast<decltype(header.length)>(ContentSize()); }

    /// The message as it goes over the wire; valid until the next change.
    std::string_view Packet()
    {
        KeepLength();
        std::memcpy(packet.data(), &header, sizeof header);
        return packet;
    }

    std::string packet;
};

/// Every lumo_message here was made by lumo_message_new or for a packet, so it is one of these.
inline Message& MessageOf(lumo_message* msg)
{
    return *static_cast<Message*>(msg);
}

struct MessagePut {
    void operator()(lumo_message* msg) const { lumo_message_put(msg); }
};

/// The one reference to a message: nothing here keeps a message, a queue keeps copies of packets.
using MessageReference = std::unique_ptr<Message, MessagePut>;

} // namespace HostPlatform

#endif
