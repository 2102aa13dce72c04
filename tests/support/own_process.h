#ifndef TESTS_SUPPORT_OWN_PROCESS_H
#define TESTS_SUPPORT_OWN_PROCESS_H

#include <fcntl.h>
#include <sys/wait.h>

#include <cerrno>
#include <filesystem>

/// What this process has: for tests of what is left behind.
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

/// Running or dead and not waited for; none of them is taken.
inline bool HasChildren()
{
    siginfo_t info{};
    return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 || errno != ECHILD;
}

} // namespace OwnProcess

#endif
