#ifndef LAUNCH_NUMBERS_H
#define LAUNCH_NUMBERS_H

#include <map>

namespace SystemServer {

/// Distinguishes launches that have the same pid one after the other. The kernel reuses a pid after its child has been
/// reaped. A launch number is never reused. Takes no lock.
class LaunchNumbers {
public:
    /// Assigns the pid to a new launch, in place of an earlier one.
    /// @throws std::bad_alloc nothing has changed
    void Add(int pid);
    /// Marks the launch's child as reaped: its pid is free, but still stands for this launch.
    void SetReaped(int pid);
    /// Forgets the launch. Both functions ignore a pid without a launch.
    void Remove(int pid);

    /// 0 when no launch has the pid.
    unsigned long NumberOf(int pid) const;
    bool IsReaped(int pid) const;
    /// Whether the launch's child has not been reaped yet.
    bool IsUnreaped(int pid) const;

private:
    struct Launch {
        unsigned long number;
        bool isReaped;
    };

    std::map<int, Launch> m_launches;
    unsigned long m_last = 0;
};

} // namespace SystemServer

#endif
