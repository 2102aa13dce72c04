#ifndef PLATFORM_HOST_RECORD_LIMIT_H
#define PLATFORM_HOST_RECORD_LIMIT_H

#include <ctime>

namespace HostPlatform {

/// Keeps what a peer can cause at will from filling the disk with log: one record a second of each kind, with the
/// number of those left out since the one before.
class RecordLimit {
public:
    /// True when a record may be written now; LeftOut then holds until the next call.
    bool Passes();
    unsigned LeftOut() const { return m_leftOut; }

private:
    bool m_any = false;
    std::time_t m_lastSecond = 0;
    unsigned m_leftOut = 0;
    unsigned m_leftOutSince = 0;
};

} // namespace HostPlatform

#endif
