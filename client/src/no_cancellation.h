#ifndef CLIENT_NO_CANCELLATION_H
#define CLIENT_NO_CANCELLATION_H

#include <pthread.h>

namespace BundleClient {

/// Disables pthread_cancel for this thread while it lives. The library is built without exceptions, so a cancelled
/// thread would run no destructor and leave its descriptors open.
class NoCancellation {
public:
    NoCancellation() { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before); }
    NoCancellation(const NoCancellation&) = delete;
    NoCancellation& operator=(const NoCancellation&) = delete;
    ~NoCancellation() { ::pthread_setcancelstate(m_before, nullptr); }

private:
    int m_before = PTHREAD_CANCEL_ENABLE;
};

} // namespace BundleClient

#endif
