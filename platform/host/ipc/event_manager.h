#ifndef PLATFORM_HOST_IPC_EVENT_MANAGER_H
#define PLATFORM_HOST_IPC_EVENT_MANAGER_H

#include "common/unique_fd.h"
#include "event_loop.h"
#include "event_owner.h"
#include "service.h"
#include "timer.h"

#include <bolt.h>

#include <list>
#include <memory>

/// The C interface's opaque name for the class below.
struct bolt_event_mgr {};

namespace HostPlatform {

/// The event loop, the services on it and the signals that end it. One thread's: that which has made it.
class EventManager final : public bolt_event_mgr {
public:
    /// Blocks SIGINT, SIGTERM and SIGQUIT on the calling thread for good. Empty, with the reason in the log, on
    /// failure.
    /// @throws std::bad_alloc
    static std::unique_ptr<EventManager> Make();

    /// Registers a service and lets it start. False, with the reason in the log, when that fails.
    /// @param ops outlive the manager
    /// @throws std::bad_alloc
    bool Register(const char* service, const bolt_server_ops* ops, void* arg);

    /// Runs until a signal ends the loop and all services with it, or until the time is over, after which the services
    /// stand as before. False when the loop fails or has ended before.
    /// @param milliseconds negative: no limit
    bool Run(int milliseconds);

private:
    EventManager() = default;

    static void OnSignal(evutil_socket_t fd, short what, void* manager) noexcept;
    static void OnTimeOver(evutil_socket_t fd, short what, void* manager) noexcept;

    bool Open();
    bool WatchSignals();
    bool EndIn(int milliseconds);
    void End();

    EventLoop m_loop;
    Common::UniqueFd m_signals;
    EventOwner m_signalled;
    Timer m_limit;
    std::list<Service> m_services;
    bool m_endIsAsked = false;
    bool m_hasEnded = false;
};

} // namespace HostPlatform

#endif
