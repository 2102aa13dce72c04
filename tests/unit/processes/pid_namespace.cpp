#include "unit/processes/pid_namespace.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>

namespace {

constexpr const char LAST_PID[] = "/proc/sys/kernel/ns_last_pid";
constexpr int PASSED = 0;
constexpr int FAILED = 1;
constexpr int NOT_POSSIBLE = 255;

bool WriteLastPid(int pid)
{
    const std::string text = std::to_string(pid);
    const int fd = ::open(LAST_PID, O_WRONLY | O_CLOEXEC);
    const bool isWritten = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    return isWritten;
}

[[noreturn]] void RunAsFirstProcess(const std::function<void()>& body)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::setpgid(0, 0); // the outer group has no number in this namespace
    if (!WriteLastPid(::getpid())) {
        ::_exit(NOT_POSSIBLE);
    }
    body();
    static_cast<void>(std::fflush(nullptr));
    ::_exit(::testing::Test::HasFailure() ? FAILED : PASSED);
}

int StatusOf(pid_t child)
{
    int status = 0;
    return ::waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : FAILED;
}

[[noreturn]] void RunInNewNamespace(const std::function<void()>& body)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::unshare(CLONE_NEWPID) == -1 && ::unshare(CLONE_NEWUSER | CLONE_NEWPID) == -1) {
        ::_exit(NOT_POSSIBLE);
    }
    const pid_t first = ::fork(); // only a child enters the namespace
    if (first == 0) {
        RunAsFirstProcess(body);
    }
    ::_exit(first == -1 ? NOT_POSSIBLE : StatusOf(first));
}

} // namespace

std::optional<int> PidNamespace::ExitStatusOf(const std::function<void()>& body)
{
    const pid_t child = ::fork();
    if (child == 0) {
        RunInNewNamespace(body);
    }
    const int status = StatusOf(child);
    return status == NOT_POSSIBLE ? std::nullopt : std::optional<int>(status);
}

void PidNamespace::Run(const std::function<void()>& body)
{
    const std::optional<int> status = ExitStatusOf(body);
    if (!status) {
        GTEST_SKIP() << "this user cannot choose the number of a process in a namespace of its own";
    }
    EXPECT_EQ(*status, PASSED) << "see the failures above";
}

void PidNamespace::SetNextPid(int pid)
{
    EXPECT_TRUE(WriteLastPid(pid - 1));
}
