#include "record_limit.h"

#include <utility>

namespace HostPlatform {

bool RecordLimit::MayWrite()
{
    const auto now = std::chrono::steady_clock::now();
    if (now < m_next) {
        ++m_suppressedSince;
        return false;
    }
    m_next = now + m_interval;
    m_suppressed = std::exchange(m_suppressedSince, 0U);
    return true;
}

} // namespace HostPlatform
