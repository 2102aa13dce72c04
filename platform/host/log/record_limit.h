#ifndef PLATFORM_HOST_LOG_RECORD_LIMIT_H
#define PLATFORM_HOST_LOG_RECORD_LIMIT_H

#include <chrono>

namespace HostPlatform {

/// Keeps records that others can cause at will from filling the disk: of each kind one in an interval, with the number
/// of those suppressed since the one before. Used by one thread at a time.
class RecordLimit {
public:
    explicit RecordLimit(std::chrono::seconds interval = std::chrono::seconds(1)) : m_interval(interval) {}

    /// Whether a record may be written now. Counts it as suppressed otherwise.
    bool MayWrite();

    /// How many were suppressed between the last record that MayWrite allowed and the one before it.
    unsigned Suppressed() const { return m_suppressed; }

private:
    const std::chrono::seconds m_interval;
    std::chrono::steady_clock::time_point m_next;
    unsigned m_suppressed = 0;
    unsigned m_suppressedSince = 0; // the last record that was allowed
};

} // namespace HostPlatform

#endif
