#include "timer.h"

#include <sys/timerfd.h>

namespace HostPlatform {

bool Timer::Open(event_base& base, event_callback_fn callback, void* argument)
{
    m_over.reset();
    m_clock.Reset(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!m_clock.IsOpen()) {
        return false;
    }
    m_over = NewEvent(base, m_clock.Get(), EV_READ | EV_PERSIST, callback, argument);
    return event_add(m_over.get(), nullptr) == 0;
}

bool Timer::Start(std::chrono::nanoseconds time)
{
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    itimerspec setting{};
    setting.it_value.tv_sec = static_cast<time_t>(seconds.count());
    setting.it_value.tv_nsec = static_cast<long>((time - seconds).count());
    return ::timerfd_settime(m_clock.Get(), 0, &setting, nullptr) == 0;
}

void Timer::Stop()
{
    Start(std::chrono::nanoseconds::zero()); // which is no time, and forgets one that is over
}

void Timer::Close()
{
    m_over.reset();
    m_clock.Reset();
}

} // namespace HostPlatform
