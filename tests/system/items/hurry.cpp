// Loaded before all other libraries of a daemon: a sleep of a second or more becomes fifty times as short.
#include "system/items/preloaded.h"

#include <dlfcn.h>

#include <ctime>

extern "C" {

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the C library's names are its own
int nanosleep(const timespec* requested, timespec* remaining)
{
    using Function = int (*)(const timespec*, timespec*);
#ifdef TEST_TIME64_NAMES
    constexpr const char name[] = "__nanosleep64"; // which the header makes of nanosleep
#else
    constexpr const char name[] = "nanosleep";
#endif
    static const auto next = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
    const timespec shortened{0, 20'000'000};
    return next(requested->tv_sec > 0 ? &shortened : requested, remaining);
}
}
