#ifndef PLATFORM_HOST_IPC_EVENT_OWNER_H
#define PLATFORM_HOST_IPC_EVENT_OWNER_H

#include <event2/event.h>

#include <memory>
#include <new>

namespace HostPlatform {

/// Frees objects of the event library. Null never comes here.
struct EventFree {
    void operator()(event* watched) const { event_free(watched); }
    void operator()(event_base* base) const { event_base_free(base); }
};

/// Owns an event of the loop. Its destruction takes the event out of the loop, so it must come before the loop's own.
using EventOwner = std::unique_ptr<event, EventFree>;
using EventBaseOwner = std::unique_ptr<event_base, EventFree>;

/// An event that is not in the loop yet: event_add puts it there. The callback runs on the loop's thread and must not
/// throw, because the library is C.
/// @param fd not owned; the event goes before it is closed
/// @param argument not owned; passed to the callback
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
