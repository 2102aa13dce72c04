#ifndef LAUNCH_NUMBERS_H
#define LAUNCH_NUMBERS_H

#include <map>

namespace SystemServer {

/// Tells apart the launches that have the same pid one after the other. A pid is used again once its child has been
/// reaped, the number of a launch is not. Takes no lock.
class LaunchNumbers {
public:
    /// A new launch has the pid, in place of an earlier one.
    /// @throws std::bad_alloc nothing has changed
    void Add(int pid);
    /// The launch's child has been reaped: its pid is free, but still stands for this launch.
    void SetReaped(int pid);
    /// The launch is forgotten. A pid without a launch is passed over, here and above.
    void Remove(int pid);

    /// 0 when no launch has the pid.
    unsigned long NumberOf(int pid) const;
    bool IsReaped(int pid) const;
    /// Whether it is a launch whose child has not been reaped.
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
