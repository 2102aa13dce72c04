#ifndef TESTS_SUPPORT_PACKETS_H
#define TESTS_SUPPORT_PACKETS_H

#include <lumo.h>

#include <cstdint>
#include <string>
#include <string_view>

/// A well-formed packet of the message service: the header with the content's length, then the content.
std::string PacketOf(lumo_header header, std::string_view content);
std::string PacketOf(std::uint8_t method, std::uint16_t uri, std::string_view content);

/// The header of a packet; all zero when the packet is shorter than a header.
lumo_header HeaderOf(std::string_view packet);

/// The content of a delete request: a name in a field of 128 bytes.
std::string NameField(const std::string& name);

/// A request to delete the bundle of that name.
std::string DeletePacket(const std::string& name);

/// A reply with that status, byte for byte.
std::string StatusPacket(std::uint16_t status);

#endif
