#ifndef PLATFORM_HOST_SERVER_H
#define PLATFORM_HOST_SERVER_H

#include "connection.h"
#include "event_owner.h"
#include "record_limit.h"
#include "service_socket.h"
#include "timer.h"

#include <bolt.h>

#include <chrono>
#include <cstddef>
#include <list>
#include <string>

namespace HostPlatform {

class EventManager;

/// One registered service: its socket, whom it admits and the connections.
class Server final : public bolt_server {
public:
    /// @throws std::bad_alloc
    Server(EventManager& manager, const char* service, const bolt_server_ops* ops, void* arg);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server() = default;

    /// Takes the name, lets the service start and begins to accept; where the lock on the name is held by a process
    /// that does not serve, it begins as soon as the loop gets it. False, with the reason in the log, when any of it
    /// fails; nothing is then left behind.
    /// @throws std::bad_alloc
    bool Start();

    /// Lets the service stop, closes its connections and takes its socket away.
    void Stop();

    EventManager& Manager() { return m_manager; }

    /// Hands a message to the service. False when the service threw.
    bool Deliver(Message& msg, Connection& connection);

    /// Ends a connection.
    void Forget(Connection::Place connection);

    /// Tells the log why a connection is dropped.
    void LogDrop(const char* what, const char* why);

private:
    static void OnAcceptable(evutil_socket_t fd, short what, void* server) noexcept;
    static void OnPauseOver(evutil_socket_t fd, short what, void* server) noexcept;
    static void OnTryAgain(evutil_socket_t fd, short what, void* server) noexcept;

    bool BeginToAccept();
    bool BeginToTry();
    void TellOfObstacle();
    void TryAgain();
    bool StartService();
    void AcceptSome();
    void AcceptAgain();
    void PauseAccepting();
    void WaitForAnEnd();
    void HandleAcceptFailure(int error);
    bool MayConnect(int peer);
    void Admit(Common::UniqueFd peer);
    bool Welcome(Connection& connection);

    EventManager& m_manager;
    const std::string m_service;
    const bolt_server_ops* const m_ops;
    void* const m_arg;
    ServiceSocket m_socket;
    EventOwner m_acceptable;
    Timer m_pause;
    Timer m_tryAgain;
    std::list<Connection> m_connections;
    std::size_t m_mostConnections = 0;
    bool m_waitsForAnEnd = false; // accepts nothing until a connection ends
    RecordLimit m_refusals;
    RecordLimit m_drops;
    RecordLimit m_exhaustions;
    RecordLimit m_obstacles{std::chrono::minutes(1)};
};

} // namespace HostPlatform

#endif
