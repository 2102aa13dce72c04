#ifndef BUNDLE_SERVICE_H
#define BUNDLE_SERVICE_H

#include <cstddef>
#include <cstdint>

/// The wire of the bundle server's request service, for the server and its clients alike. A request is one message with
/// uri 0 and a method; its reply is one message with the response flag and a status, and nothing else: the other fields
/// of the header are zero and there is no content.
namespace SystemServer::BundleService {

/// The name under which the service is registered with the IPC framework.
constexpr const char SERVICE_NAME[] = "bundlesvr.paas.kov";

/// The one uri that is served.
constexpr std::uint16_t URI = 0;

/// Byte 3 of the header: the method in the low bits, the response flag above them.
constexpr std::uint8_t METHOD_MASK = 0x7F;
constexpr std::uint8_t RESPONSE_FLAG = 0x80;

/// Deletes a bundle. The content is one field of NAME_FIELD_SIZE bytes: the bundle's name, NUL-terminated.
constexpr std::uint8_t METHOD_DELETE_BUNDLE = 4;
constexpr std::size_t NAME_FIELD_SIZE = 128;

/// The statuses of a reply.
constexpr std::uint16_t STATUS_OK = 200;
constexpr std::uint16_t STATUS_BAD_REQUEST = 400;
constexpr std::uint16_t STATUS_NOT_FOUND = 404;

} // namespace SystemServer::BundleService

#endif
