#include "event_manager.h"

#include "host_log.h"

#include <sys/signalfd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <initializer_list>

namespace HostPlatform {

namespace {

sigset_t EndingSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGQUIT}) {
        sigaddset(&signals, number);
    }
    return signals;
}

/// The event library's own complaints belong in the log, too.
void LogForLibrary(int severity, const char* text)
{
    if (severity >= EVENT_LOG_WARN) {
        HOST_LOG_ERROR("event loop: %s.", text);
    }
}

struct ConfigFree {
    void operator()(event_config* config) const { event_config_free(config); }
};

event_base* NewBase()
{
    const std::unique_ptr<event_config, ConfigFree> config(event_config_new());
    // Everything runs on the thread of the loop; and what stands in the environment is no business of a service.
    if (!config || event_config_set_flag(config.get(), EVENT_BASE_FLAG_NOLOCK | EVENT_BASE_FLAG_IGNORE_ENV) != 0) {
        return nullptr;
    }
    return event_base_new_with_config(config.get());
}

} // namespace

std::unique_ptr<EventManager> EventManager::Make()
{
    std::unique_ptr<EventManager> manager(new EventManager);
    return manager->Open() ? std::move(manager) : nullptr;
}

bool EventManager::Open()
{
    event_set_log_callback(LogForLibrary);
    m_base.reset(NewBase());
    if (!m_base) {
        HOST_LOG_ERROR("no event loop can be made: %s.", std::strerror(errno));
        return false;
    }
    if (!WatchSignals()) {
        HOST_LOG_ERROR("signals cannot be taken by the event loop: %s.", std::strerror(errno));
        return false;
    }
    return true;
}

bool EventManager::WatchSignals()
{
    // Blocked and read from a descriptor, not handled: children inherit what is handled or ignored, and would have to
    // be given it back.
    const sigset_t signals = EndingSignals();
    errno = ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    if (errno != 0) {
        return false;
    }
    m_signals.Reset(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!m_signals.IsOpen()) {
        return false;
    }
    m_signalled = NewEvent(*m_base, m_signals.Get(), EV_READ | EV_PERSIST, OnSignal, this);
    return event_add(m_signalled.get(), nullptr) == 0;
}

void EventManager::OnSignal(evutil_socket_t fd, short /*what*/, void* manager) noexcept
{
    signalfd_siginfo signal{};
    if (::read(fd, &signal, sizeof signal) != static_cast<ssize_t>(sizeof signal)) {
        return;
    }
    auto& self = *static_cast<EventManager*>(manager);
    self.m_endIsAsked = true;
    event_base_loopbreak(self.m_base.get());
}

bool EventManager::Register(const char* service, const bolt_server_ops* ops, void* arg)
{
    if (m_hasEnded) {
        return false;
    }
    Server& server = m_servers.emplace_back(*this, service, ops, arg);
    bool started = false;
    try {
        started = server.Start();
    } catch (...) {
        m_servers.pop_back();
        throw;
    }
    if (!started) {
        m_servers.pop_back();
    }
    return started;
}

bool EventManager::Run(int milliseconds)
{
    if (m_hasEnded) {
        return false;
    }
    if (milliseconds >= 0 && !EndIn(milliseconds)) {
        return false;
    }
    const bool ran = event_base_dispatch(m_base.get()) >= 0;
    m_limit.Close();
    if (m_endIsAsked || !ran) {
        End();
    }
    return ran;
}

// Without time left, a run handles what is there.
bool EventManager::EndIn(int milliseconds)
{
    if (milliseconds == 0) {
        return event_base_loopexit(m_base.get(), nullptr) == 0;
    }
    return m_limit.Open(*m_base, OnTimeOver, this) && m_limit.Start(std::chrono::milliseconds(milliseconds));
}

void EventManager::OnTimeOver(evutil_socket_t /*fd*/, short /*what*/, void* manager) noexcept
{
    auto& self = *static_cast<EventManager*>(manager);
    self.m_limit.Stop();
    if (event_base_loopexit(self.m_base.get(), nullptr) != 0) { // what else is ready now waits for the next run
        event_base_loopbreak(self.m_base.get());
    }
}

void EventManager::End()
{
    m_hasEnded = true;
    for (Server& server : m_servers) {
        server.Stop();
    }
    m_servers.clear();
    if (m_endIsAsked) {
        // The signal has been taken out of the queue, yet the program waits for one when the loop has returned: it
        // finds this, which stays pending on this thread. SIGTERM, for a debugged program does not wait for SIGINT.
        static_cast<void>(std::raise(SIGTERM));
    }
}

} // namespace HostPlatform
