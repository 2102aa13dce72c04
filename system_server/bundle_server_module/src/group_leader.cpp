#include "group_leader.h"

#include "common/unique_fd.h"
#include "inherited_state.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <new>

namespace SystemServer {

using Common::UniqueFd;

namespace {

thread_local bool t_childLeadsGroup = false;

/// The pipe into which a child that leads a group writes its pid; -1: no pipe.
thread_local int t_pidPipe = -1;

// Runs in every child, between fork and exec. It is the last code of ours that runs before the framework's launcher
// executes the command.
void LeadGroup()
{
    if (t_childLeadsGroup) {
        RestoreFileSizeSignal();
        setpgid(0, 0);
        const pid_t self = getpid();
        [[maybe_unused]] const ssize_t written = write(t_pidPipe, &self, sizeof self);
    }
}

[[maybe_unused]] const int ATFORK_RESULT = pthread_atfork(nullptr, nullptr, LeadGroup);

/// While it lives, a child that this thread forks leads a group. The framework allocates a child's handle after it has
/// forked the child. If that allocation fails the pid is lost, so the child sends it through a pipe that is closed when
/// it executes.
class LeadingFork {
public:
    LeadingFork()
    {
        std::array<int, 2> ends{-1, -1};
        if (pipe2(ends.data(), O_CLOEXEC) == 0) {
            m_readEnd = UniqueFd(ends[0]);
            m_writeEnd = UniqueFd(ends[1]);
        }
        t_pidPipe = m_writeEnd.Get();
        t_childLeadsGroup = true;
    }
    ~LeadingFork() { t_childLeadsGroup = false; }
    LeadingFork(const LeadingFork&) = delete;
    LeadingFork& operator=(const LeadingFork&) = delete;

    /// Kills and reaps the child, if there is one.
    void Undo()
    {
        m_writeEnd.Reset();
        pid_t child = 0;
        ssize_t size = 0;
        do {
            size = read(m_readEnd.Get(), &child, sizeof child);
        } while (size == -1 && errno == EINTR);
        if (size == static_cast<ssize_t>(sizeof child)) {
            kill(child, SIGKILL);
            while (waitpid(child, nullptr, 0) == -1 && errno == EINTR) {
            }
        }
    }

private:
    UniqueFd m_readEnd;
    UniqueFd m_writeEnd;
};

Poco::ProcessHandle Launch(const std::string& command, const std::vector<std::string>& arguments)
{
    LeadingFork leading;
    try {
        return Poco::Process::launch(command, arguments);
    } catch (const std::bad_alloc&) {
        leading.Undo();
        throw;
    }
}

} // namespace

GroupLeader LaunchInOwnGroup(const std::string& command, const std::vector<std::string>& arguments)
{
    GroupLeader child{Launch(command, arguments), 0};
    // The child does the same for itself. The server does it too, so that the group exists before the caller continues.
    // The kernel refuses it (EACCES) once the child has become the command. By then the child has already moved.
    const pid_t pid = child.process.id();
    if (setpgid(pid, 0) == -1) {
        const int error = errno;
        child.groupError = getpgid(pid) == pid ? 0 : error;
    }
    return child;
}

} // namespace SystemServer
