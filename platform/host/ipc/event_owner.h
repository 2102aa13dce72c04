#ifndef PLATFORM_HOST_IPC_EVENT_OWNER_H
#define PLATFORM_HOST_IPC_EVENT_OWNER_H

#include <event2/event.h>

#include <memory>
#include <new>

namespace HostPlatform {

/// Frees what the event library has made.
struct EventFree {
    void operator()(event* watched) const { event_free(watched); }
    void operator()(event_base* base) const { event_base_free(base); }
};

/// Owns an event of the loop; takes it out of the loop when it is destroyed, which comes before the loop's own end.
using EventOwner = std::unique_ptr<event, EventFree>;
using EventBaseOwner = std::unique_ptr<event_base, EventFree>;

/// An event that is not in the loop yet: event_add puts it there.
/// @param argument not owned; handed to the callback
/// @throws std::bad_alloc
inline EventOwner NewEvent(event_base& base, int fd, short what, event_callback_fn callback, void* argument)
{
    EventOwner owner(event_new(&base, fd, what, callback, argument));
    if (!owner) {
        throw std::bad_alloc();
    }
    return owner;
}

} // namespace HostPlatform

#endif
