#ifndef BUNDLECTL_REQUEST_SERVICE_H
#define BUNDLECTL_REQUEST_SERVICE_H

#include "common/service_directory.h"

#include <bundle_service.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <string>

/// Where the server's request service is found.
inline std::string ServicePath()
{
    return std::string(Common::SERVICE_DIRECTORY) + '/' + SystemServer::BundleService::SERVICE_NAME;
}

/// A time limit as libbundle-client takes it, rounded up; 0 when the time is over.
inline int MillisecondsUntil(std::chrono::steady_clock::time_point end)
{
    using std::chrono::milliseconds;
    const auto left = std::chrono::ceil<milliseconds>(end - std::chrono::steady_clock::now());
    return static_cast<int>(std::clamp<milliseconds::rep>(left.count(), 0, std::numeric_limits<int>::max()));
}

#endif
