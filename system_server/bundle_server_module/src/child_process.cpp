#include "child_process.h"

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace SystemServer {

namespace {

/// More than a collection of thousands of bundles and clients needs, and closed one by one in about a millisecond.
constexpr rlim_t DESCRIPTOR_LIMIT = 16384;

thread_local bool t_childLeadsGroup = false;

/// Taken before main, on the thread that becomes the main thread.
struct StartState {
    StartState();
    sigset_t signalMask;
    struct sigaction childEnded;
    rlimit descriptors;
};

const StartState START_STATE;

void PrepareChild()
{
    sigaction(SIGCHLD, &START_STATE.childEnded, nullptr);
    pthread_sigmask(SIG_SETMASK, &START_STATE.signalMask, nullptr);
    if (t_childLeadsGroup) {
        setpgid(0, 0);
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
    getrlimit(RLIMIT_NOFILE, &descriptors);
    pthread_atfork(nullptr, nullptr, PrepareChild);
}

} // namespace

GroupLeader LaunchInOwnGroup(const std::string& command, const std::vector<std::string>& arguments)
{
    struct LeadsGroup {
        LeadsGroup() { t_childLeadsGroup = true; }
        ~LeadsGroup() { t_childLeadsGroup = false; }
    };
    const LeadsGroup leadsGroup;
    GroupLeader child{Poco::Process::launch(command, arguments), 0};
    // The child has done the same for itself. Asked for here too, the group stands before the caller goes on; the child
    // refuses it once it has become the command (EACCES), when it has long been where it belongs.
    const pid_t pid = child.process.id();
    if (setpgid(pid, 0) == -1) {
        const int error = errno;
        child.groupError = getpgid(pid) == pid ? 0 : error;
    }
    return child;
}

TerminationSignalsBlocked::TerminationSignalsBlocked()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGQUIT}) {
        sigaddset(&signals, signal);
    }
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

} // namespace SystemServer
