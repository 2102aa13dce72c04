// Loaded before all other libraries of a daemon. It counts allocations from the record of the daemon's start-up on: the
// first MALLOC_AFTER succeed, the next MALLOC_FAILURES fail.
#include "system/items/preloaded.h"

#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

std::atomic<bool> g_isArmed{false};
std::atomic<long> g_after{0};
std::atomic<long> g_failures{0};

long Setting(const char* name)
{
    const char* const text = std::getenv(name);
    return text != nullptr ? std::strtol(text, nullptr, 10) : 0;
}

bool MustFail()
{
    return g_isArmed && g_after.fetch_sub(1) <= 0 && g_failures.fetch_sub(1) > 0;
}

} // namespace

extern "C" {

void* __libc_malloc(size_t size); // NOLINT(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the C library's

void* malloc(size_t size)
{
    if (MustFail()) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_malloc(size);
}

ssize_t write(int fd, const void* buf, size_t n)
{
    static const auto next = reinterpret_cast<ssize_t (*)(int, const void*, size_t)>(::dlsym(RTLD_NEXT, "write"));
    const ssize_t written = next(fd, buf, n);
    const std::string_view record(static_cast<const char*>(buf), n);
    if (!g_isArmed && record.find(" init bundle server...\n") != std::string_view::npos) {
        g_after = Setting("MALLOC_AFTER");
        g_failures = Setting("MALLOC_FAILURES");
        g_isArmed = true;
    }
    return written;
}
}
