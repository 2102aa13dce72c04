#ifndef CHILD_WAIT_H
#define CHILD_WAIT_H

#include "bundle_log.h"

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <list>
#include <new>
#include <thread>
#include <vector>

namespace SystemServer {

/// Waits for deaths among the children of a process group, in rounds: all children that are dead at one moment come
/// before any later death. The kernel's own order begins with the waiting thread's children. The monitor has relaunched
/// these. So one item that ends at once each time would hide every other death. Used on one thread.
class ChildWait {
public:
    /// The children to check besides the one that the kernel names first.
    using KnownChildren = std::function<std::vector<int>()>;

    /// @param knownChildren called in Next, on its thread
    explicit ChildWait(KnownChildren knownChildren);
    ~ChildWait();
    ChildWait(const ChildWait&) = delete;
    ChildWait& operator=(const ChildWait&) = delete;

    /// Waits, without a limit, until a child of the group is dead. It is not reaped. A child that another thread's wait
    /// has reaped meanwhile may still be named.
    /// @return its pid; -1, with errno set, when the wait has failed
    int Next(pid_t group);

private:
    std::list<int> FindDead(pid_t group, int first) const;

    const KnownChildren m_knownChildren;
    std::list<int> m_round; // a list, because an empty one needs no memory
};

/// Runs a step of a dead child's handling. When memory is short it tries again each second, without a limit: only the
/// monitor does this work.
/// @return what the step returns
/// @throws what the step throws, apart from std::bad_alloc
template <class Step> auto RetryOnBadAlloc(int pid, const Step& step)
{
    for (;;) {
        try {
            return step();
        } catch (const std::bad_alloc&) {
            BUNDLE_ERROR("out of memory at the end of process[%d], trying again.", pid);
            std::this_thread::sleep_for(std::chrono::seconds(1));
        }
    }
}

} // namespace SystemServer

#endif
