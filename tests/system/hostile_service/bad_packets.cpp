#include "system/hostile_service/bad_packets.h"

#include "common/wire.h"
#include "support/packets.h"

#include <bundle_service.h>

#include <algorithm>
#include <array>
#include <cstring>

using Common::HEADER_SIZE;
using Common::MAX_PACKET_SIZE;
using namespace SystemServer::BundleService;

namespace {

/// The packet, with a length in its header that is wrong by that much.
std::string WithLength(std::string packet, int difference)
{
    const auto length = static_cast<std::uint16_t>(packet.size() - HEADER_SIZE + static_cast<unsigned>(difference));
    std::memcpy(packet.data(), &length, sizeof length);
    return packet;
}

} // namespace

std::optional<std::uint16_t> AnswerTo(const std::string& packet)
{
    const lumo_header header = HeaderOf(packet);
    if (packet.size() < HEADER_SIZE || packet.size() > MAX_PACKET_SIZE ||
        header.length != packet.size() - HEADER_SIZE) {
        return std::nullopt;
    }
    const bool isDelete = header.uri == URI && (header.method & METHOD_MASK) == METHOD_DELETE_BUNDLE;
    return static_cast<std::uint16_t>(isDelete && header.length >= NAME_FIELD_SIZE ? 404 : 400);
}

BadPackets::Packet BadPackets::Next()
{
    switch (Below(11)) {
    case 0:
        return {Bytes(Below(HEADER_SIZE))}; // the empty packet among them
    case 1:
        return {WithLength(Request(Below(2000)), -1 - static_cast<int>(Below(3)))};
    case 2:
        return {WithLength(Request(Below(2000)), 1 + static_cast<int>(Below(3)))};
    case 3:
        return {WithLength(std::string(MAX_PACKET_SIZE + 1 + Below(30000), 'x'), 0)};
    case 4:
        return {Below(2) == 0 ? Request(Below(300)) : Bytes(Below(300)), true};
    case 5:
        return {PacketOf(AnyHeader(), Bytes(Below(600)))};
    case 6:
        return {PacketOf(METHOD_DELETE_BUNDLE | RESPONSE_FLAG, 0, Bytes(NAME_FIELD_SIZE))};
    case 7:
        return {PacketOf(METHOD_DELETE_BUNDLE, 0, std::string(NAME_FIELD_SIZE + Below(9000), 'n'))}; // no NUL
    case 8:
        return {DeletePacket(UnpleasantName())};
    case 9:
        return {PacketOf(METHOD_DELETE_BUNDLE, 0, Bytes(Below(NAME_FIELD_SIZE)))};
    default:
        return {Bytes(Below(400))};
    }
}

std::size_t BadPackets::Below(std::size_t end)
{
    return std::uniform_int_distribution<std::size_t>(0, end - 1)(m_random);
}

std::string BadPackets::Bytes(std::size_t size)
{
    std::string bytes(size, '\0');
    std::generate(bytes.begin(), bytes.end(), [this] { return static_cast<char>(Below(256)); });
    return bytes;
}

std::string BadPackets::Request(std::size_t contentSize)
{
    return PacketOf(METHOD_DELETE_BUNDLE, 0, Bytes(contentSize));
}

lumo_header BadPackets::AnyHeader()
{
    lumo_header header{};
    const std::string bytes = Bytes(sizeof header);
    std::memcpy(&header, bytes.data(), sizeof header);
    return header;
}

std::string BadPackets::UnpleasantName()
{
    static const std::array<const char*, 12> names{
        "%s%s%s%s%n%n%n%n", "%1000000d",         "\x1b[2J\x1b]0;title\x07",
        "line\nline\r\n",   "../../../../etc",   "\xff\xfe\x80\xc0",
        "\xed\xa0\x80",     "\xf4\x90\x80\x80",  "\xc2\x9b\x32J",
        "\x7f\x01\x02\t",   "$(reboot)`reboot`", "2026-11-21T00:00:00.000000Z INFO 4 0 1 1 - forged",
    };
    std::string name = names[Below(names.size())];
    return Below(2) == 0 ? name : name + Bytes(Below(NAME_FIELD_SIZE - name.size()));
}
