#include "event_manager.h"

#include "platform/host/log/host_log.h"

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

} // namespace

std::unique_ptr<EventManager> EventManager::Make()
{
    std::unique_ptr<EventManager> manager(new EventManager);
    return manager->Open() ? std::move(manager) : nullptr;
}

bool EventManager::Open()
{
    if (!m_loop.Open()) {
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
    // The signals are blocked and read from a descriptor. With a handler, children would inherit a changed disposition.
    const sigset_t signals = EndingSignals();
    errno = ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    if (errno != 0) {
        return false;
    }
    m_signals.Reset(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!m_signals.IsOpen()) {
        return false;
    }
    m_signalled = NewEvent(m_loop.Base(), m_signals.Get(), EV_READ | EV_PERSIST, OnSignal, this);
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
    event_base_loopbreak(&self.m_loop.Base());
}

bool EventManager::Register(const char* service, const bolt_server_ops* ops, void* arg)
{
    if (m_hasEnded) {
        return false;
    }
    Service& added = m_services.emplace_back(m_loop, service, ops, arg);
    bool started = false;
    try {
        started = added.Start();
    } catch (...) {
        m_services.pop_back();
        throw;
    }
    if (!started) {
        m_services.pop_back();
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
    const bool ran = event_base_dispatch(&m_loop.Base()) >= 0;
    m_limit.Close();
    if (m_endIsAsked || !ran) {
        End();
    }
    return ran;
}

// With a limit of 0 a run handles only what is ready.
bool EventManager::EndIn(int milliseconds)
{
    if (milliseconds == 0) {
        return event_base_loopexit(&m_loop.Base(), nullptr) == 0;
    }
    return m_limit.Open(m_loop.Base(), OnTimeOver, this) && m_limit.Start(std::chrono::milliseconds(milliseconds));
}

void EventManager::OnTimeOver(evutil_socket_t /*fd*/, short /*what*/, void* manager) noexcept
{
    auto& self = *static_cast<EventManager*>(manager);
    self.m_limit.Stop();
    if (event_base_loopexit(&self.m_loop.Base(), nullptr) != 0) { // what else is ready now waits for the next run
        event_base_loopbreak(&self.m_loop.Base());
    }
}

void EventManager::End()
{
    m_hasEnded = true;
    for (Service& service : m_services) {
        service.Stop();
    }
    m_services.clear();
    if (m_endIsAsked) {
        // The loop has consumed the signal, but the program waits for one when the loop has returned. It finds this
        // one, which stays pending on this thread. SIGTERM, because a debugged program does not wait for SIGINT.
        static_cast<void>(std::raise(SIGTERM));
    }
}

} // namespace HostPlatform
