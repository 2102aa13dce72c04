// The input is a number of two bytes, the low byte first, and a packet. That many bytes are appended to the packet, so
// a short input stands for a packet of any length. The platform must accept exactly the packets that keep the wire's
// rules, and the message must return every byte.
#include "fuzz/fuzz_target.h"

#include "platform/host/ipc/packet.h"

#include <cstring>
#include <memory>
#include <string>

using HostPlatform::MAX_CONTENT_SIZE;
using HostPlatform::MAX_PACKET_SIZE;
using HostPlatform::MessageOfPacket;
using HostPlatform::MessageReference;
using HostPlatform::PacketFault;

namespace {

constexpr std::size_t HEADER_SIZE = 8;

std::string PacketOf(const std::uint8_t* data, std::size_t size)
{
    if (size < 2) {
        return {};
    }
    const std::size_t appended = data[0] + std::size_t{256} * data[1];
    return std::string(data + 2, data + size) + std::string(appended, 'x');
}

bool IsSound(const std::string& packet)
{
    if (packet.size() < HEADER_SIZE || packet.size() > MAX_PACKET_SIZE) {
        return false;
    }
    std::uint16_t length = 0;
    std::memcpy(&length, packet.data(), sizeof length);
    return length == packet.size() - HEADER_SIZE;
}

MessageReference Receive(const std::string& packet)
{
    // Of exactly its size, and released before the message is checked.
    const std::unique_ptr<char[]> received(new char[packet.size()]);
    std::memcpy(received.get(), packet.data(), packet.size());
    // The platform must not read a packet that is too long, because its end did not fit into the buffer.
    const void* const readable = packet.size() > MAX_PACKET_SIZE ? nullptr : received.get();
    const char* const fault = PacketFault(readable, packet.size());
    Require((fault == nullptr) == IsSound(packet), "a packet is judged wrongly");
    if (fault != nullptr) {
        Require(*fault != '\0', "a fault without words");
        return nullptr;
    }
    MessageReference msg = MessageOfPacket(received.get(), packet.size());
    Require(msg != nullptr, "no message is made of a sound packet");
    return msg;
}

void RequireContent(lumo_message* msg, const std::string& expected)
{
    void* data = nullptr;
    int length = -1;
    const int result = lumo_content(msg, &data, &length);
    Require(msg->header.length == expected.size(), "the header's length is not the content's");
    if (expected.empty()) {
        Require(result != 0 && data == nullptr && length == -1, "there is a content where none is");
        return;
    }
    Require(result == 0, "the content is not to be had");
    const auto* const text = static_cast<const char*>(data);
    Require(std::string(text, static_cast<std::size_t>(length)) == expected, "the content is another one");
    Require(text[length] == '\0', "no NUL stands behind the content");
}

void RequireZeroBehindLength(const lumo_header& header)
{
    Require(header.kind == 0 && header.method == 0 && header.uri == 0 && header.status == 0,
            "the header is not cleared");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string packet = PacketOf(data, size);
    const MessageReference msg = Receive(packet);
    if (!msg) {
        return 0;
    }
    Require(std::memcmp(&msg->header, packet.data(), HEADER_SIZE) == 0, "the header is another one");
    const std::string content = packet.substr(HEADER_SIZE);
    RequireContent(msg.get(), content);
    Require(msg->Packet() == packet, "what is sent is not what was received");

    const bool fits = 2 * content.size() <= MAX_CONTENT_SIZE;
    const int added = lumo_content_add(msg.get(), content.data(), static_cast<int>(content.size()), 0);
    Require((added == 0) == fits, "what may be added to the content is judged wrongly");
    RequireContent(msg.get(), fits ? content + content : content);
    lumo_header_clear(msg.get());
    RequireZeroBehindLength(msg->header);
    RequireContent(msg.get(), fits ? content + content : content);
    lumo_content_clear(msg.get());
    RequireContent(msg.get(), "");
    return 0;
}
