#include "child_process.h"

#include "common/unique_fd.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>

namespace SystemServer {

using Common::UniqueFd;

namespace {

/// More than a collection of thousands of bundles and clients needs, and closed one by one in about a millisecond.
constexpr rlim_t DESCRIPTOR_LIMIT = 16384;

thread_local bool t_childLeadsGroup = false;

/// Where a child that leads a group says its number; -1 where nobody asks.
thread_local int t_birthNotice = -1;

/// Taken before main, on the thread that becomes the main thread.
struct StartState {
    StartState();
    sigset_t signalMask;
    struct sigaction childEnded;
    struct sigaction fileTooLarge;
    rlimit descriptors;
};

const StartState START_STATE;

void PrepareChild()
{
    sigaction(SIGCHLD, &START_STATE.childEnded, nullptr);
    pthread_sigmask(SIG_SETMASK, &START_STATE.signalMask, nullptr);
    if (t_childLeadsGroup) {
        RestoreFileSizeSignal(); // the framework's launcher calls nothing of ours between here and the exec
        setpgid(0, 0);
        const pid_t self = getpid();
        [[maybe_unused]] const ssize_t written = write(t_birthNotice, &self, sizeof self);
    }
}

StartState::StartState()
{
    pthread_sigmask(SIG_SETMASK, nullptr, &signalMask);
    // Blocked by the framework's library when it was loaded, not by who started the server.
    sigdelset(&signalMask, SIGPIPE);
    // Who starts the server with SIGCHLD ignored asks the kernel to throw the ends of its children away: nothing could
    // be waited for.
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    sigaction(SIGCHLD, &standard, &childEnded);
    sigaction(SIGXFSZ, nullptr, &fileTooLarge);
    getrlimit(RLIMIT_NOFILE, &descriptors);
    pthread_atfork(nullptr, nullptr, PrepareChild);
}

/// While it lives, a child that this thread forks leads a group. The framework needs memory for a child's handle after
/// it has forked the child: where there is none, nobody would be left who knows of it, so the child says its number
/// itself, into a pipe that is closed when it executes.
class Birth {
public:
    Birth()
    {
        std::array<int, 2> ends{-1, -1};
        if (pipe2(ends.data(), O_CLOEXEC) == 0) {
            m_readEnd = UniqueFd(ends[0]);
            m_writeEnd = UniqueFd(ends[1]);
        }
        t_birthNotice = m_writeEnd.Get();
        t_childLeadsGroup = true;
    }
    ~Birth() { t_childLeadsGroup = false; }
    Birth(const Birth&) = delete;
    Birth& operator=(const Birth&) = delete;

    /// Ends the child, if there is one.
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
    Birth birth;
    try {
        return Poco::Process::launch(command, arguments);
    } catch (const std::bad_alloc&) {
        birth.Undo();
        throw;
    }
}

} // namespace

GroupLeader LaunchInOwnGroup(const std::string& command, const std::vector<std::string>& arguments)
{
    GroupLeader child{Launch(command, arguments), 0};
    // The child has done the same for itself. Asked for here too, the group stands before the caller goes on; the child
    // refuses it once it has become the command (EACCES), when it has long been where it belongs.
    const pid_t pid = child.process.id();
    if (setpgid(pid, 0) == -1) {
        const int error = errno;
        child.groupError = getpgid(pid) == pid ? 0 : error;
    }
    return child;
}

sigset_t TerminationSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGQUIT}) {
        sigaddset(&signals, signal);
    }
    return signals;
}

TerminationSignalsBlocked::TerminationSignalsBlocked()
{
    const sigset_t signals = TerminationSignals();
    pthread_sigmask(SIG_BLOCK, &signals, &m_before);
}

TerminationSignalsBlocked::~TerminationSignalsBlocked()
{
    pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
}

void BoundDescriptorLimit()
{
    rlimit bounded = START_STATE.descriptors;
    bounded.rlim_cur = std::min(bounded.rlim_cur, DESCRIPTOR_LIMIT);
    setrlimit(RLIMIT_NOFILE, &bounded);
}

void RestoreDescriptorLimit() noexcept
{
    setrlimit(RLIMIT_NOFILE, &START_STATE.descriptors);
}

void IgnoreFileSizeSignal() noexcept
{
    struct sigaction ignored {};
    ignored.sa_handler = SIG_IGN;
    sigaction(SIGXFSZ, &ignored, nullptr);
}

void RestoreFileSizeSignal() noexcept
{
    sigaction(SIGXFSZ, &START_STATE.fileTooLarge, nullptr);
}

} // namespace SystemServer
