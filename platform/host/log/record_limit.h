#ifndef PLATFORM_HOST_LOG_RECORD_LIMIT_H
#define PLATFORM_HOST_LOG_RECORD_LIMIT_H

#include <chrono>

namespace HostPlatform {

/// Limits records that others can cause at will, so that they do not fill the disk. One object for each kind of record:
/// it allows one in an interval and counts those in between. Used by one thread at a time.
class RecordLimit {
public:
    /// @param interval of the monotonic clock; the first record is allowed at once
    explicit RecordLimit(std::chrono::seconds interval = std::chrono::seconds(1)) : m_interval(interval) {}

    /// Whether a record may be written now; then the next interval begins. Otherwise counts it as suppressed.
    bool MayWrite();

    /// The number suppressed between the last allowed record and the one before it. Ask after MayWrite has returned
    /// true.
    unsigned Suppressed() const { return m_suppressed; }

private:
    const std::chrono::seconds m_interval;
    std::chrono::steady_clock::time_point m_next;
    unsigned m_suppressed = 0;
    unsigned m_suppressedSince = 0; // the last record that was allowed
};

} // namespace HostPlatform

#endif
