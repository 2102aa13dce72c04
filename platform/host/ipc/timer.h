#ifndef PLATFORM_HOST_IPC_TIMER_H
#define PLATFORM_HOST_IPC_TIMER_H

#include "common/unique_fd.h"
#include "event_owner.h"

#include <chrono>

namespace HostPlatform {

/// Calls back from the event loop when a time is over. The kernel measures it, and the loop watches a descriptor: a
/// time handed to the event library would be misread on a 32-bit machine where the library was built with times of 32
/// bits.
class Timer {
public:
    /// Called before the rest; may be called again.
    /// @param callback on the loop's thread; it stops the timer or starts it anew, else it is called again at once
    /// @return false with errno when there is no descriptor, or the loop does not take it
    /// @throws std::bad_alloc
    bool Open(event_base& base, event_callback_fn callback, void* argument);

    /// @param time at least one nanosecond
    /// @return false with errno
    bool Start(std::chrono::nanoseconds time);

    /// Keeps the callback away until the next start.
    void Stop();

    /// Takes the timer out of the loop. It can be opened again.
    void Close();

private:
    Common::UniqueFd m_clock;
    EventOwner m_over; // after the descriptor, so that it goes first
};

} // namespace HostPlatform

#endif
