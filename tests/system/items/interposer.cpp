// Loaded before all other libraries of a daemon, it makes happen what happens too seldom by itself:
//   REFUSE_FORK_WHEN=FILE   no process can be forked while FILE is there
//   DELAY_SETPGID=SECONDS   setpgid for another process comes that much later
//   DELAY_SIGMASK=SECONDS   a thread that is not the main one sets its signal mask that much later
//   LINGER_AT_EXIT=SECONDS  the daemon ends that much later than its main function and its static objects
//   HOLD_AFTER=SECONDS:TEXT a line each: a thread that has written a record with that text is held up for so long
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
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
}
