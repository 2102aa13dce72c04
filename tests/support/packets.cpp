#include "support/packets.h"

#include "bundle_service.h"

#include <cstring>

namespace {

namespace Service = SystemServer::BundleService;

} // namespace

std::string PacketOf(lumo_header header, std::string_view content)
{
    header.length = static_cast<std::uint16_t>(content.size());
    std::string packet(sizeof header, '\0');
    std::memcpy(packet.data(), &header, sizeof header);
    packet += content;
    return packet;
}

std::string PacketOf(std::uint8_t method, std::uint16_t uri, std::string_view content)
{
    lumo_header header{};
    header.method = method;
    header.uri = uri;
    return PacketOf(header, content);
}

lumo_header HeaderOf(std::string_view packet)
{
    lumo_header header{};
    if (packet.size() >= sizeof header) {
        std::memcpy(&header, packet.data(), sizeof header);
    }
    return header;
}

std::string NameField(const std::string& name)
{
    std::string field = name;
    field.resize(Service::NAME_FIELD_SIZE, '\0');
    return field;
}

std::string DeletePacket(const std::string& name)
{
    return PacketOf(Service::METHOD_DELETE_BUNDLE, Service::URI, NameField(name));
}

std::string StatusPacket(std::uint16_t status)
{
    lumo_header header{};
    header.method = Service::RESPONSE_FLAG;
    header.status = status;
    return PacketOf(header, "");
}
