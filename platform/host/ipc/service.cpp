#include "service.h"

#include "platform/host/log/host_log.h"

#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <limits>
#include <new>
#include <utility>

namespace HostPlatform {

using Common::UniqueFd;

namespace {

constexpr std::chrono::seconds TRY_INTERVAL{1};

/// Calls into the service. An exception ends here, because the event library is C. False when it threw.
template <typename Call> bool Guarded(const std::string& service, const char* callback, const Call& call) noexcept
{
    try {
        call();
        return true;
    } catch (const std::exception& exception) {
        HOST_LOG_ERROR("service[%s]: its %s callback threw: %s.", service.c_str(), callback, exception.what());
    } catch (...) {
        HOST_LOG_ERROR("service[%s]: its %s callback threw what is no std::exception.", service.c_str(), callback);
    }
    return false;
}

/// Half of the descriptors are the program's own: clients that connect too often must not keep it from opening its
/// files and launching its children.
std::size_t MostConnections()
{
    rlimit descriptors{};
    ::getrlimit(RLIMIT_NOFILE, &descriptors);
    return static_cast<std::size_t>(
        std::min<rlim_t>(descriptors.rlim_cur / 2, std::numeric_limits<std::size_t>::max()));
}

} // namespace

Service::Service(EventLoop& loop, const char* service, const bolt_server_ops* ops, void* arg)
    : bolt_server{nullptr}, m_loop(loop), m_service(service), m_ops(ops), m_arg(arg)
{}

bool Service::Start()
{
    m_mostConnections = MostConnections();
    switch (m_socket.Listen(m_service, ServiceSocket::Patience::A_SECOND)) {
    case ServiceSocket::Listening::BEGUN:
        return BeginToAccept() && StartService();
    case ServiceSocket::Listening::LATER:
        return BeginToTry() && StartService();
    case ServiceSocket::Listening::FAILED:
        break;
    }
    return false;
}

bool Service::BeginToAccept()
{
    m_acceptable = NewEvent(m_loop.Base(), m_socket.Get(), EV_READ | EV_PERSIST, OnAcceptable, this);
    if (event_add(m_acceptable.get(), nullptr) != 0) {
        HOST_LOG_ERROR("service[%s]: the event loop does not take its socket.", m_service.c_str());
        return false;
    }
    if (!m_pause.Open(m_loop.Base(), OnPauseOver, this)) {
        m_acceptable.reset();
        HOST_LOG_ERROR("service[%s]: no timer can be made: %s.", m_service.c_str(), std::strerror(errno));
        return false;
    }
    return true;
}

/// A process that holds the lock without serving must not prevent the service. The loop tries again as long as it runs.
bool Service::BeginToTry()
{
    if (!m_tryAgain.Open(m_loop.Base(), OnTryAgain, this) || !m_tryAgain.Start(TRY_INTERVAL)) {
        HOST_LOG_ERROR("service[%s]: no timer can be made: %s.", m_service.c_str(), std::strerror(errno));
        return false;
    }
    TellOfObstacle();
    return true;
}

void Service::TellOfObstacle()
{
    if (m_obstacles.MayWrite()) {
        HOST_LOG_ERROR("service[%s]: it cannot be reached yet: %s. The server tries again each second.",
                       m_service.c_str(), m_socket.Obstacle().c_str());
    }
}

void Service::OnTryAgain(evutil_socket_t /*fd*/, short /*what*/, void* service) noexcept
{
    auto& self = *static_cast<Service*>(service);
    self.m_tryAgain.Start(TRY_INTERVAL);
    try {
        self.TryAgain();
    } catch (const std::exception& exception) {
        self.m_socket.Remove(); // the next try must not find our own socket
        HOST_LOG_ERROR("service[%s]: it cannot be reached yet: %s.", self.m_service.c_str(), exception.what());
    }
}

void Service::TryAgain()
{
    const ServiceSocket::Listening listening = m_socket.Listen(m_service, ServiceSocket::Patience::NONE);
    if (listening == ServiceSocket::Listening::LATER) {
        TellOfObstacle();
        return;
    }
    const bool accepts = listening == ServiceSocket::Listening::BEGUN && BeginToAccept();
    m_tryAgain.Stop();
    if (accepts) {
        HOST_LOG_INFO("service[%s]: it can be reached now.", m_service.c_str());
    } else {
        m_socket.Remove();
        HOST_LOG_ERROR("service[%s]: it cannot be reached, and the server tries no more.", m_service.c_str());
    }
}

bool Service::StartService()
{
    if (m_ops == nullptr || m_ops->start == nullptr) {
        return true;
    }
    int result = -1;
    if (!Guarded(m_service, "start", [&] { result = m_ops->start(this, m_arg); })) {
        return false;
    }
    if (result != 0) {
        HOST_LOG_ERROR("service[%s]: it does not start, its start callback returned %d.", m_service.c_str(), result);
    }
    return result == 0;
}

void Service::Stop()
{
    if (m_ops != nullptr && m_ops->stop != nullptr) {
        Guarded(m_service, "stop", [this] { m_ops->stop(this, m_arg); });
    }
    m_connections.clear();
    m_acceptable.reset();
    m_pause.Close();
    m_tryAgain.Close();
    m_socket.Remove();
}

void Service::OnAcceptable(evutil_socket_t /*fd*/, short /*what*/, void* service) noexcept
{
    static_cast<Service*>(service)->AcceptSome();
}

void Service::OnPauseOver(evutil_socket_t /*fd*/, short /*what*/, void* service) noexcept
{
    auto& self = *static_cast<Service*>(service);
    self.m_pause.Stop();
    self.AcceptAgain();
}

/// If the loop does not take the listener back, it is asked again later. The service must not stop accepting for good.
void Service::AcceptAgain()
{
    if (event_add(m_acceptable.get(), nullptr) != 0) {
        PauseAccepting();
    }
}

/// Pauses only if a timer is there to end the pause.
void Service::PauseAccepting()
{
    if (m_pause.Start(std::chrono::milliseconds(100))) {
        event_del(m_acceptable.get());
    }
}

/// A few in each round of the loop, so that a rush of new peers does not delay the old ones.
void Service::AcceptSome()
{
    if (m_connections.size() >= m_mostConnections) {
        WaitForAnEnd();
        return;
    }
    constexpr int most = 16;
    for (int i = 0; i < most && m_connections.size() < m_mostConnections; ++i) {
        UniqueFd peer(::accept4(m_socket.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!peer.IsOpen()) {
            HandleAcceptFailure(errno);
            return;
        }
        if (MayConnect(peer.Get())) {
            Admit(std::move(peer));
        }
    }
}

/// The waiting peer keeps the listener readable, so the loop would spin.
void Service::WaitForAnEnd()
{
    event_del(m_acceptable.get());
    m_waitsForAnEnd = true;
    if (m_exhaustions.MayWrite()) {
        HOST_LOG_ERROR("service[%s]: a connection cannot be accepted: %zu are open, as many as may be. Those that wait "
                       "are served when others end; %u earlier failures are not shown.",
                       m_service.c_str(), m_connections.size(), m_exhaustions.Suppressed());
    }
}

void Service::Forget(ConnectionPlace connection)
{
    m_connections.erase(connection);
    if (std::exchange(m_waitsForAnEnd, false)) {
        AcceptAgain();
    }
}

void Service::HandleAcceptFailure(int error)
{
    if (error == EAGAIN || error == EINTR || error == ECONNABORTED) {
        return;
    }
    // Most likely the process is out of descriptors. The waiting peer keeps the listener readable, so the loop would
    // spin.
    PauseAccepting();
    if (m_exhaustions.MayWrite()) {
        HOST_LOG_ERROR("service[%s]: a connection cannot be accepted: %s. Those that wait are tried again; "
                       "%zu are open, %u earlier failures are not shown.",
                       m_service.c_str(), std::strerror(error), m_connections.size(), m_exhaustions.Suppressed());
    }
}

bool Service::MayConnect(int peer)
{
    ucred credentials{};
    socklen_t size = sizeof credentials;
    const bool known = ::getsockopt(peer, SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0;
    if (known && (credentials.uid == ::geteuid() || credentials.uid == 0)) {
        return true;
    }
    if (m_refusals.MayWrite()) {
        HOST_LOG_ERROR("service[%s]: process %d of user %d is refused: only user %u and root may connect; "
                       "%u earlier refusals are not shown.",
                       m_service.c_str(), static_cast<int>(credentials.pid), static_cast<int>(credentials.uid),
                       static_cast<unsigned>(::geteuid()), m_refusals.Suppressed());
    }
    return false;
}

void Service::Admit(UniqueFd peer)
{
    try {
        m_connections.emplace_front(m_loop, static_cast<ConnectionOwner&>(*this), std::move(peer));
    } catch (const std::bad_alloc&) {
        LogDrop("cannot be accepted", "out of memory");
        return;
    }
    const auto connection = m_connections.begin();
    if (!connection->Begin(connection)) {
        LogDrop("cannot be accepted", "the event loop does not take it");
        Forget(connection);
        return;
    }
    if (!Welcome(*connection)) {
        connection->Drop();
    }
}

bool Service::Welcome(Connection& connection)
{
    if (protocol_ops == nullptr || protocol_ops->connected == nullptr) {
        return true;
    }
    return Guarded(m_service, "connected", [&] { protocol_ops->connected(&connection); });
}

bool Service::Deliver(Message& msg, Connection& connection)
{
    if (protocol_ops == nullptr || protocol_ops->message == nullptr) {
        return true;
    }
    return Guarded(m_service, "message", [&] { protocol_ops->message(&msg, &connection); });
}

void Service::LogDrop(const char* what, const char* why)
{
    if (m_drops.MayWrite()) {
        HOST_LOG_ERROR("service[%s]: a peer %s (%s), its connection is closed; %u earlier ones are not shown.",
                       m_service.c_str(), what, why, m_drops.Suppressed());
    }
}

} // namespace HostPlatform
