#ifndef PLATFORM_HOST_IPC_TIMER_H
#define PLATFORM_HOST_IPC_TIMER_H

#include "common/unique_fd.h"
#include "event_owner.h"

#include <chrono>

namespace HostPlatform {

/// Calls back from the event loop when a time is over. The kernel measures the time, and the loop watches a descriptor.
/// A 32-bit event library may have times of 32 bits and would misread a time of ours. The loop's thread only.
class Timer {
public:
    /// Called before the other operations. A second call begins anew, with the timer stopped.
    /// @param callback runs on the loop's thread and must stop the timer or start it again, otherwise it is called at
    /// once
    /// @return false with errno when there is no descriptor, or the loop does not take it
    /// @throws std::bad_alloc
    bool Open(event_base& base, event_callback_fn callback, void* argument);

    /// Replaces a time that is already running.
    /// @param time of the monotonic clock, at least one nanosecond
    /// @return false, with errno set, when the timer is not open or the kernel refuses
    bool Start(std::chrono::nanoseconds time);

    /// Prevents the callback until the next start, also when the time is already over.
    void Stop();

    /// Takes the timer out of the loop. It can be opened again.
    void Close();

private:
    Common::UniqueFd m_clock;
    EventOwner m_over; // after the descriptor, so that it goes first
};

} // namespace HostPlatform

#endif
