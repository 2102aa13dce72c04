// Loaded before all other libraries of a daemon. Divides each sleep of a second or more by fifty.
#include "system/items/preloaded.h"

#include <dlfcn.h>

#include <ctime>

extern "C" {

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the C library's names are its own
int nanosleep(const timespec* requested, timespec* remaining)
{
    using Function = int (*)(const timespec*, timespec*);
#ifdef TEST_TIME64_NAMES
    constexpr const char name[] = "__nanosleep64"; // the name that the header gives to nanosleep
#else
    constexpr const char name[] = "nanosleep";
#endif
    static const auto next = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
    const timespec shortened{0, 20'000'000};
    return next(requested->tv_sec > 0 ? &shortened : requested, remaining);
}
}
