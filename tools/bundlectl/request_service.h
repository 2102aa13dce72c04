#ifndef BUNDLECTL_REQUEST_SERVICE_H
#define BUNDLECTL_REQUEST_SERVICE_H

#include "common/service_directory.h"

#include <bundle_service.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <string>

/// The path of the server's request socket. It exists only while a server serves, or after a server was killed.
inline std::string ServicePath()
{
    return std::string(Common::SERVICE_DIRECTORY) + '/' + SystemServer::BundleService::SERVICE_NAME;
}

/// The time until end in the form of libbundle-client: milliseconds, rounded up so that a call does not end too early.
/// @return 0 when the time is over; never negative, which would mean no limit
inline int MillisecondsUntil(std::chrono::steady_clock::time_point end)
{
    using std::chrono::milliseconds;
    const auto left = std::chrono::ceil<milliseconds>(end - std::chrono::steady_clock::now());
    return static_cast<int>(std::clamp<milliseconds::rep>(left.count(), 0, std::numeric_limits<int>::max()));
}

#endif
