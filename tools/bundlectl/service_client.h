#ifndef BUNDLECTL_SERVICE_CLIENT_H
#define BUNDLECTL_SERVICE_CLIENT_H

#include "common/unique_fd.h"

#include <lumo.h>

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

/// Asks a service of the message service one question at a time.
class ServiceClient {
public:
    enum class Outcome {
        ANSWERED,    ///< Reply() holds it
        UNREACHABLE, ///< nobody serves; Reason() says why
        REFUSED,     ///< this user may not ask; Reason() says why
        CLOSED,      ///< the server closed the connection instead of a reply
        NO_ANSWER,   ///< the time is over; the server may still be at it
        BROKEN,      ///< what came is no reply to the request; Reason() says why
    };

    struct Answer {
        lumo_header header{};
        std::string content;
    };

    /// @param service a name of the message service. Nothing is connected yet.
    explicit ServiceClient(std::string_view service);

    /// Connects, unless it is connected. ANSWERED: a server has the service.
    Outcome Connect(std::chrono::milliseconds limit);

    /// The process that has the service. Connected only; 0 where that process cannot be seen.
    pid_t Server() const;

    /// Connects, sends one request, waits for its reply and disconnects.
    /// @param limit for all of it together
    Outcome Ask(std::uint8_t method, std::string_view content, std::chrono::milliseconds limit);

    const Answer& Reply() const { return m_reply; }
    const std::string& Reason() const { return m_reason; }
    const std::string& Path() const { return m_path; }

private:
    using Clock = std::chrono::steady_clock;

    Outcome Send(std::uint8_t method, std::string_view content);
    Outcome Receive(Clock::time_point end);
    Outcome Read(std::string_view packet);
    Outcome Fail(Outcome outcome, std::string reason);

    const std::string m_path;
    Common::UniqueFd m_socket;
    Answer m_reply;
    std::string m_reason;
};

#endif
