#ifndef COMMON_WIRE_H
#define COMMON_WIRE_H

#include <lumo.h>

#include <cstddef>
#include <limits>

/// The limits of the message service, in bytes. One packet is one message: the header as it is in memory, in the
/// machine's byte order, then the content. Server, clients and tests share these.
namespace Common {

/// The smallest packet: a message without content.
constexpr std::size_t HEADER_SIZE = sizeof(lumo_header);
/// The largest packet, its header included. A larger one ends its connection.
constexpr std::size_t MAX_PACKET_SIZE = 65536;
/// The largest content, which a packet of MAX_PACKET_SIZE has.
constexpr std::size_t MAX_CONTENT_SIZE = MAX_PACKET_SIZE - HEADER_SIZE;
static_assert(MAX_CONTENT_SIZE <= std::numeric_limits<decltype(lumo_header::length)>::max(),
              "the header's length can name every content");

} // namespace Common

#endif
