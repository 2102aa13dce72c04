#ifndef PLATFORM_HOST_LOG_RECORD_LIMIT_H
#define PLATFORM_HOST_LOG_RECORD_LIMIT_H

#include <chrono>

namespace HostPlatform {

/// Keeps what others can cause at will from filling the disk with log: of each kind one record in an interval, with the
/// number of those left out since the one before.
class RecordLimit {
public:
    explicit RecordLimit(std::chrono::seconds interval = std::chrono::seconds(1)) : m_interval(interval) {}

    /// True when a record may be written now; LeftOut then holds until the next call.
    bool Passes();
    unsigned LeftOut() const { return m_leftOut; }

private:
    const std::chrono::seconds m_interval;
    std::chrono::steady_clock::time_point m_next;
    unsigned m_leftOut = 0;
    unsigned m_leftOutSince = 0;
};

} // namespace HostPlatform

#endif
