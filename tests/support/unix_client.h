#ifndef TESTS_SUPPORT_UNIX_CLIENT_H
#define TESTS_SUPPORT_UNIX_CLIENT_H

#include <lumo.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// A sound packet of the message service.
std::string PacketOf(lumo_header header, std::string_view content);
std::string PacketOf(std::uint8_t method, std::uint16_t uri, std::string_view content);

/// The header of a packet; all zero when it is shorter than one.
lumo_header HeaderOf(std::string_view packet);

/// A peer of the message service that sends whatever bytes it is given.
class UnixClient {
public:
    /// Connects; whether that worked is what IsConnected says.
    explicit UnixClient(const std::string& path);
    UnixClient(const UnixClient&) = delete;
    UnixClient& operator=(const UnixClient&) = delete;
    ~UnixClient();

    bool IsConnected() const { return m_error == 0; }
    /// The errno of the attempt to connect, 0 when it worked.
    int Error() const { return m_error; }
    int Fd() const { return m_fd; }

    /// Sends one packet. False when the connection is closed or takes none for seconds.
    bool Send(std::string_view packet) const;

    /// The same, with descriptors for the peer to keep.
    bool SendWithDescriptors(std::string_view packet, const std::vector<int>& descriptors) const;

    /// The same, but a connection that takes nothing more at the moment is not waited for: false at once.
    bool SendWithoutWaiting(std::string_view packet) const;

    /// Tells the peer that nothing more comes; replies may still be received.
    void ShutDownSending() const;

    /// The next packet; empty when none comes in time or the peer has closed the connection.
    std::optional<std::string> Receive(std::chrono::milliseconds timeout) const;

    /// Sends one packet and receives one.
    std::optional<std::string> Ask(std::string_view packet, std::chrono::milliseconds timeout) const;

    /// Whether the peer closes the connection within that time. What it has sent before is thrown away.
    bool IsClosedByPeer(std::chrono::milliseconds timeout) const;

private:
    int m_fd;
    int m_error = 0;
};

#endif
