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

/// The event loop, the services on it and the signals that end it. Only the thread that has made it uses it.
class EventManager final : public bolt_event_mgr {
public:
    /// Blocks SIGINT, SIGTERM and SIGQUIT on the calling thread for good, also when it fails. Threads that are started
    /// before keep their mask, and such a signal may end the process there.
    /// @return empty, with the reason in the log, on failure
    /// @throws std::bad_alloc
    static std::unique_ptr<EventManager> Make();

    /// Registers a service and calls its start callback. False, with the reason in the log, when that fails; nothing is
    /// then left of it. False without a record after the loop has ended.
    /// @param ops not owned, outlives the manager, as arg does; null: no callbacks
    /// @throws std::bad_alloc
    bool Register(const char* service, const bolt_server_ops* ops, void* arg);

    /// Runs until a signal ends the loop and its services, or until the time is over, which ends nothing. After a
    /// signal, SIGTERM is pending on the calling thread, because a program may wait for it next.
    /// @param milliseconds negative: no limit; 0: handles what is ready
    /// @return false when the loop fails, which ends it too, or has ended before
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
