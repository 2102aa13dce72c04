#ifndef TESTS_SUPPORT_OWN_PROCESS_H
#define TESTS_SUPPORT_OWN_PROCESS_H

#include <fcntl.h>
#include <sys/wait.h>

#include <cerrno>
#include <filesystem>

/// The resources of this process, for tests that nothing is left behind.
namespace OwnProcess {

inline int Descriptors()
{
    constexpr int most = 4096;
    int count = 0;
    for (int fd = 0; fd < most; ++fd) {
        count += ::fcntl(fd, F_GETFD) != -1 ? 1 : 0;
    }
    return count;
}

inline int Threads()
{
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        count += task.path().empty() ? 0 : 1;
    }
    return count;
}

/// Whether any child runs or is not reaped yet. Reaps none of them.
inline bool HasChildren()
{
    siginfo_t info{};
    return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 || errno != ECHILD;
}

} // namespace OwnProcess

#endif
