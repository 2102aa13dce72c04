#include "record_limit.h"

#include <utility>

namespace HostPlatform {

bool RecordLimit::Passes()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    if (m_any && now.tv_sec == m_lastSecond) {
        ++m_leftOutSince;
        return false;
    }
    m_any = true;
    m_lastSecond = now.tv_sec;
    m_leftOut = std::exchange(m_leftOutSince, 0U);
    return true;
}

} // namespace HostPlatform
