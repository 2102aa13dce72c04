#ifndef TESTS_SUPPORT_CPU_TIME_H
#define TESTS_SUPPORT_CPU_TIME_H

#include <sys/types.h>

#include <chrono>
#include <ctime>

/// The processor time that another process has used so far. An hour if it is unknown, so that upper bounds fail.
inline std::chrono::nanoseconds CpuTimeOf(pid_t pid)
{
    clockid_t clock{};
    timespec used{};
    if (::clock_getcpuclockid(pid, &clock) != 0 || ::clock_gettime(clock, &used) != 0) {
        return std::chrono::hours(1);
    }
    return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

#endif
