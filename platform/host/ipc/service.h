#ifndef PLATFORM_HOST_IPC_SERVICE_H
#define PLATFORM_HOST_IPC_SERVICE_H

#include "connection.h"
#include "event_loop.h"
#include "event_owner.h"
#include "platform/host/log/record_limit.h"
#include "service_socket.h"
#include "timer.h"

#include <bolt.h>

#include <chrono>
#include <cstddef>
#include <list>
#include <string>

namespace HostPlatform {

/// One registered service: its socket, the peers that it admits and their connections. The loop's thread only. An
/// exception of the service's callbacks is logged and costs the connection, never the loop.
class Service final : public bolt_server, private ConnectionOwner {
public:
    /// Claims nothing yet.
    /// @param loop outlives the service, as do ops and arg, which are not owned
    /// @param ops null: no callbacks
    /// @throws std::bad_alloc
    Service(EventLoop& loop, const char* service, const bolt_server_ops* ops, void* arg);
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    ~Service() override = default;

    /// Claims the name, begins to accept and calls the start callback. Waits up to a second for the lock on the name.
    /// If a process that does not serve holds it longer, the service starts unreachable and the loop tries again each
    /// second.
    /// @return false, with the reason in the log, when a step fails; the caller then destroys the service
    /// @throws std::bad_alloc
    bool Start();

    /// Calls the stop callback, closes the connections and removes the socket. Queued replies are lost.
    void Stop();

private:
    bool Deliver(Message& msg, Connection& connection) override;
    void Forget(ConnectionPlace connection) override;
    void LogDrop(const char* what, const char* why) override;

    static void OnAcceptable(evutil_socket_t fd, short what, void* service) noexcept;
    static void OnPauseOver(evutil_socket_t fd, short what, void* service) noexcept;
    static void OnTryAgain(evutil_socket_t fd, short what, void* service) noexcept;

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

    EventLoop& m_loop;
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
