#include "record_limit.h"

#include <utility>

namespace HostPlatform {

bool RecordLimit::Passes()
{
    const auto now = std::chrono::steady_clock::now();
    if (now < m_next) {
        ++m_leftOutSince;
        return false;
    }
    m_next = now + m_interval;
    m_leftOut = std::exchange(m_leftOutSince, 0U);
    return true;
}

} // namespace HostPlatform
