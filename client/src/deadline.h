#ifndef CLIENT_DEADLINE_H
#define CLIENT_DEADLINE_H

#include <sys/time.h>

#include <cstdint>
#include <ctime>

namespace BundleClient {

/// The moment at which a time limit is over, by the monotonic clock. Only reads the clock, so any thread may use it.
class Deadline {
public:
    /// @param limit in milliseconds, from now on; negative: never
    explicit Deadline(int limit) : m_end(limit < 0 ? NEVER : Now() + limit * NANOSECONDS_PER_MILLISECOND) {}

    bool IsOver() const { return m_end != NEVER && Now() >= m_end; }

    /// The rest in the form of poll: milliseconds, rounded up so that poll does not return too early; -1: no limit.
    int ForPoll() const
    {
        if (m_end == NEVER) {
            return -1;
        }
        const std::int64_t left = Left();
        return static_cast<int>((left + NANOSECONDS_PER_MILLISECOND - 1) / NANOSECONDS_PER_MILLISECOND);
    }

    /// The rest in the form of a socket option, where zero means no limit. When the time is over: the shortest limit.
    timeval ForSocket() const
    {
        if (m_end == NEVER) {
            return {};
        }
        const int left = ForPoll();
        return {left / 1000, left == 0 ? 1 : left % 1000 * 1000};
    }

private:
    static constexpr std::int64_t NEVER = -1;
    static constexpr std::int64_t NANOSECONDS_PER_MILLISECOND = 1000000;
    static constexpr std::int64_t NANOSECONDS_PER_SECOND = 1000000000;

    static std::int64_t Now()
    {
        timespec now{};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        return now.tv_sec * NANOSECONDS_PER_SECOND + now.tv_nsec;
    }

    std::int64_t Left() const
    {
        const std::int64_t left = m_end - Now();
        return left > 0 ? left : 0;
    }

    std::int64_t m_end;
};

} // namespace BundleClient

#endif
