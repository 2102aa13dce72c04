#ifndef COMMON_WIRE_H
#define COMMON_WIRE_H

#include <lumo.h>

#include <cstddef>
#include <limits>

/// The limits of the message service, in bytes. One packet is one message: the header as it is in memory, then the
/// content.
namespace Common {

constexpr std::size_t HEADER_SIZE = sizeof(lumo_header);
constexpr std::size_t MAX_PACKET_SIZE = 65536;
constexpr std::size_t MAX_CONTENT_SIZE = MAX_PACKET_SIZE - HEADER_SIZE;
static_assert(MAX_CONTENT_SIZE <= std::numeric_limits<decltype(lumo_header::length)>::max(),
              "the header's length can name every content");

} // namespace Common

#endif
