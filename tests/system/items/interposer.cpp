// Loaded before all other libraries of a daemon. It causes events that are rare by themselves:
//   REFUSE_FORK_WHEN=FILE   no process can be forked while FILE is there
//   DELAY_SETPGID=SECONDS   setpgid for another process comes that much later
//   DELAY_FSYNC=SECONDS     fsync takes that much longer
//   DELAY_SIGMASK=SECONDS   a thread that is not the main one sets its signal mask that much later
//   LINGER_AT_EXIT=SECONDS  the daemon ends that much later than its main function and its static objects
//   HOLD_AFTER=SECONDS:TEXT in lines: a thread that has written a record with that text pauses for that time
//   FAIL=CALL:ERRNO:COUNT:AFTER  calls of that name by the daemon and its libraries fail with ERRNO: AFTER of them
//                           succeed, the next COUNT fail
//   FAIL_FROM=TEXT          FAIL begins when a record with that text is written
//   FAIL_IN=TEXT            FAIL counts only calls of libraries with that text in their path
#include "system/items/preloaded.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

namespace {

template <class Function> Function Next(const char* name)
{
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

void Pause(long seconds)
{
    const timespec time{seconds, 0};
    ::nanosleep(&time, nullptr);
}

/// How long to pause after this text, by lines of "SECONDS:TEXT".
long HoldAfter(std::string_view holds, std::string_view text)
{
    while (!holds.empty()) {
        const std::string_view line = holds.substr(0, holds.find('\n'));
        const std::size_t colon = line.find(':');
        if (colon != std::string_view::npos && text.find(line.substr(colon + 1)) != std::string_view::npos) {
            return std::strtol(line.data(), nullptr, 10);
        }
        holds.remove_prefix(std::min(line.size() + 1, holds.size()));
    }
    return 0;
}

/// The parsed value of FAIL.
struct Plan {
    std::string_view call;
    int error = 0;
    std::atomic<int> count{0};
    std::atomic<int> after{0};
    std::atomic<bool> isArmed{false};
    pid_t daemon = 0; // calls of its children are not changed

    Plan()
    {
        const char* const text = std::getenv("FAIL");
        if (text == nullptr || std::strcmp(program_invocation_short_name, "bundle_server") != 0) {
            return;
        }
        call = std::string_view(text, std::strcspn(text, ":"));
        char* next = const_cast<char*>(text) + call.size();
        error = static_cast<int>(std::strtol(next + 1, &next, 10));
        count = static_cast<int>(std::strtol(next + 1, &next, 10));
        after = static_cast<int>(std::strtol(next + 1, &next, 10));
        daemon = ::getpid();
        isArmed = std::getenv("FAIL_FROM") == nullptr;
    }
};

Plan& ThePlan()
{
    static Plan& plan = *new Plan;
    return plan;
}

/// Whether the caller is in a library that FAIL_IN selects.
bool IsMeant(void* caller)
{
    const char* const text = std::getenv("FAIL_IN");
    Dl_info library{};
    return text == nullptr || (::dladdr(caller, &library) != 0 && std::strstr(library.dli_fname, text) != nullptr);
}

bool Fails(const char* call, void* caller)
{
    Plan& plan = ThePlan();
    if (!plan.isArmed || plan.call != call || plan.daemon != ::getpid() || !IsMeant(caller)) {
        return false;
    }
    if (plan.after.fetch_sub(1) > 0 || plan.count.fetch_sub(1) <= 0) {
        return false;
    }
    errno = plan.error;
    return true;
}

void ArmAt(std::string_view record)
{
    const char* const text = std::getenv("FAIL_FROM");
    if (text != nullptr && record.find(text) != std::string_view::npos) {
        ThePlan().isArmed = ThePlan().daemon == ::getpid();
    }
}

__attribute__((destructor)) void Linger()
{
    const char* const seconds = std::getenv("LINGER_AT_EXIT");
    if (seconds != nullptr && std::strcmp(program_invocation_short_name, "bundle_server") == 0) {
        Pause(std::strtol(seconds, nullptr, 10));
    }
}

} // namespace

extern "C" {

pid_t fork()
{
    static const auto next = Next<pid_t (*)()>("fork");
    const char* const file = std::getenv("REFUSE_FORK_WHEN");
    if (file != nullptr && ::access(file, F_OK) == 0) {
        errno = EAGAIN;
        return -1;
    }
    return next();
}

ssize_t write(int fd, const void* buf, size_t n)
{
    static const auto next = Next<ssize_t (*)(int, const void*, size_t)>("write");
    const ssize_t written = next(fd, buf, n);
    const int error = errno;
    ArmAt({static_cast<const char*>(buf), n});
    const char* const holds = std::getenv("HOLD_AFTER");
    if (holds != nullptr) {
        Pause(HoldAfter(holds, {static_cast<const char*>(buf), n}));
    }
    errno = error;
    return written;
}

int pthread_sigmask(int how, const sigset_t* newmask, sigset_t* oldmask) noexcept
{
    static const auto next = Next<int (*)(int, const sigset_t*, sigset_t*)>("pthread_sigmask");
    const char* const seconds = std::getenv("DELAY_SIGMASK");
    if (seconds != nullptr && ::gettid() != ::getpid()) {
        Pause(std::strtol(seconds, nullptr, 10));
    }
    return next(how, newmask, oldmask);
}

int setpgid(pid_t pid, pid_t pgid) noexcept
{
    static const auto next = Next<int (*)(pid_t, pid_t)>("setpgid");
    const char* const seconds = std::getenv("DELAY_SETPGID");
    if (seconds != nullptr && pid != 0) {
        Pause(std::strtol(seconds, nullptr, 10));
    }
    return next(pid, pgid);
}

int fsync(int fd)
{
    static const auto next = Next<int (*)(int)>("fsync");
    if (const char* const seconds = std::getenv("DELAY_FSYNC")) {
        Pause(std::strtol(seconds, nullptr, 10));
    }
    return next(fd);
}

// NOLINTBEGIN(bugprone-macro-parentheses): types and lists of arguments
#define FAILING_CALL(call, Result, failure, parameters, arguments)                                                     \
    Result call parameters                                                                                             \
    {                                                                                                                  \
        static const auto next = Next<Result(*) parameters>(#call);                                                    \
        return Fails(#call, __builtin_return_address(0)) ? failure : next arguments;                                   \
    }
// NOLINTEND(bugprone-macro-parentheses)

FAILING_CALL(inotify_init, int, -1, () noexcept, ())
FAILING_CALL(opendir, DIR*, nullptr, (const char* name), (name))
FAILING_CALL(waitpid, pid_t, -1, (pid_t pid, int* stat_loc, int options), (pid, stat_loc, options))
FAILING_CALL(read, ssize_t, -1, (int fd, void* buf, size_t nbytes), (fd, buf, nbytes))
FAILING_CALL(execvp, int, -1, (const char* file, char* const* argv) noexcept, (file, argv))

// The status of a file. Its layout depends on the size of times, which this code need not know.
#define FAILING_STATUS(function, call, name)                                                                           \
    int function(const char* file, void* status) noexcept __asm__(name);                                               \
    int function(const char* file, void* status) noexcept                                                              \
    {                                                                                                                  \
        static const auto next = Next<int (*)(const char*, void*)>(name);                                              \
        return Fails(call, __builtin_return_address(0)) ? -1 : next(file, status);                                     \
    }
FAILING_STATUS(FailingStat, "stat64", "stat64")
#ifdef TEST_TIME64_NAMES
FAILING_STATUS(FailingTimedStat, "stat64", "__stat64_time64") // the daemon's own on a 32-bit machine
#endif

// NOLINTNEXTLINE(readability-identifier-naming): the header's own name
int pthread_create(pthread_t* newthread, const pthread_attr_t* attr, void* (*start_routine)(void*), void* arg) noexcept
{
    static const auto next =
        Next<int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
    return Fails("pthread_create", __builtin_return_address(0)) ? errno : next(newthread, attr, start_routine, arg);
}
}
