#ifndef TESTS_SYSTEM_SOAK_CLIENTS_H
#define TESTS_SYSTEM_SOAK_CLIENTS_H

#include "support/unix_client.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <string>

/// Connections to the server with pending requests. The replies must come in order, each with the expected status.
class SoakClients {
public:
    using Clock = std::chrono::steady_clock;

    void Connect(int count);
    int Count() const { return static_cast<int>(m_clients.size()); }

    /// Sends a request on one of the connections.
    /// @param answered called when the reply has come
    void Send(int client, std::uint16_t status, const std::string& packet, std::function<void()> answered = {});
    /// Sends a packet that is broken, on a connection that the server must then close.
    void SendBroken(const std::string& packet);

    /// Receives and checks the replies that have come.
    void Follow();

    /// Whether no reply is pending and every connection with a broken packet is closed.
    bool IsQuiet() const;
    std::chrono::milliseconds SlowestReply() const { return m_slowestReply; }

    /// Adds a failure for each pending reply, and for each connection that must still be closed.
    void ShowOpen() const;
    /// Sends one more request on each connection. Its reply must be the next packet and the last.
    void ExpectNothingUnread();

private:
    struct Request {
        std::uint16_t status;
        std::function<void()> answered;
        Clock::time_point sent;
    };
    /// The replies come in the order of the requests.
    struct Client {
        UnixClient connection;
        std::deque<Request> open;
        explicit Client(const std::string& path) : connection(path) {}
    };

    void TakeReply(Client& client, const std::string& packet);

    std::list<Client> m_clients;
    std::list<UnixClient> m_broken;
    std::chrono::milliseconds m_slowestReply{0};
};

#endif
