#ifndef TESTS_SUPPORT_UNIX_CLIENT_H
#define TESTS_SUPPORT_UNIX_CLIENT_H

#include "common/unique_fd.h"
#include "support/packets.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// A peer of the message service that sends any bytes.
class UnixClient {
public:
    /// Connects. IsConnected says whether that worked.
    explicit UnixClient(const std::string& path);
    bool IsConnected() const { return m_error == 0; }
    /// The errno of the attempt to connect, 0 when it worked.
    int Error() const { return m_error; }
    int Fd() const { return m_fd.Get(); }

    /// Sends one packet. False when the connection is closed or takes no packet for seconds.
    bool Send(std::string_view packet) const;

    /// The same, and passes descriptors to the peer.
    bool SendWithDescriptors(std::string_view packet, const std::vector<int>& descriptors) const;

    /// The same without waiting: false at once when the connection takes nothing more at the moment.
    bool SendWithoutWaiting(std::string_view packet) const;

    /// Shuts down the sending side. Replies can still be received.
    void ShutDownSending() const;

    /// Receives the next packet. Empty when none comes in time or the peer has closed the connection.
    std::optional<std::string> Receive(std::chrono::milliseconds timeout) const;

    /// Sends one packet and receives one.
    std::optional<std::string> Ask(std::string_view packet, std::chrono::milliseconds timeout) const;

    /// Whether the peer closes the connection within that time. Discards the packets that come before.
    bool IsClosedByPeer(std::chrono::milliseconds timeout) const;

private:
    Common::UniqueFd m_fd;
    int m_error = 0;
};

#endif
