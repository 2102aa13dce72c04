#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>

// Linked into every program of the coverage build only. The compiler's library writes the counters when a process ends
// normally. This file writes them before every other end and before an exec. See cmake/coverage.cmake.

// Functions of the compiler's library. After a dump, a further dump writes nothing until a reset.
extern "C" void __gcov_dump();  // NOLINT(bugprone-reserved-identifier, cert-dcl37-c, cert-dcl51-cpp)
extern "C" void __gcov_reset(); // NOLINT(bugprone-reserved-identifier, cert-dcl37-c, cert-dcl51-cpp)

namespace {

// A forked child inherits its parent's counts, which the parent writes itself. So the child resets them. This handler
// is registered before any other, so that the child counts the code of the others.
__attribute__((constructor(101))) void CountInChildrenFromZero()
{
    pthread_atfork(nullptr, nullptr, __gcov_reset);
}

// A test that limits the size of files would cut off the counters of all tests.
void WriteCounters()
{
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlim_t before = limit.rlim_cur;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_FSIZE, &limit);
    __gcov_dump();
    limit.rlim_cur = before;
    setrlimit(RLIMIT_FSIZE, &limit);
}

} // namespace

// The linker turns a call of a wrapped name into a call of "__wrap_" and that name. The replaced function is called by
// "__real_" and that name.
[[noreturn]] void RealExit(int status) __asm__("__real__exit");
[[noreturn]] void WrappedExit(int status) __asm__("__wrap__exit");
[[noreturn]] void RealAbort() __asm__("__real_abort");
[[noreturn]] void WrappedAbort() __asm__("__wrap_abort");
int WrappedExecl(const char* path, const char* first, ...) __asm__("__wrap_execl");

void WrappedExit(int status)
{
    WriteCounters();
    RealExit(status);
}

void WrappedAbort()
{
    WriteCounters();
    RealAbort();
}

// Variable arguments cannot be passed on, so they become an array. Returns only when the exec fails.
int WrappedExecl(const char* path, const char* first, ...)
{
    constexpr std::size_t most = 16;
    std::array<char*, most> arguments{};
    va_list list;
    va_start(list, first);
    std::size_t count = 0;
    for (const char* argument = first; argument != nullptr; argument = va_arg(list, const char*)) {
        if (count + 1 == most) {
            RealAbort();
        }
        arguments[count++] = const_cast<char*>(argument);
    }
    va_end(list);
    WriteCounters();
    const int result = execv(path, arguments.data());
    __gcov_reset();
    return result;
}
