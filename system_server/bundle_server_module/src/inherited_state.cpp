#include "inherited_state.h"

#include <pthread.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>

namespace SystemServer {

namespace {

/// Enough for a collection of thousands of bundles and clients. Closing this many one by one takes about a millisecond.
constexpr rlim_t DESCRIPTOR_LIMIT = 16384;

/// Taken before main, on the thread that becomes the main thread.
struct StartState {
    StartState();
    sigset_t signalMask;
    struct sigaction childEnded;
    struct sigaction fileTooLarge;
    rlimit descriptors;
};

const StartState START_STATE;

void RestoreSignals()
{
    sigaction(SIGCHLD, &START_STATE.childEnded, nullptr);
    pthread_sigmask(SIG_SETMASK, &START_STATE.signalMask, nullptr);
}

StartState::StartState()
{
    pthread_sigmask(SIG_SETMASK, nullptr, &signalMask);
    // The framework's library blocked it when it was loaded, not the process that started the server.
    sigdelset(&signalMask, SIGPIPE);
    // If the parent starts the server with SIGCHLD ignored, the kernel discards the exits of children: the server could
    // not wait for them.
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    sigaction(SIGCHLD, &standard, &childEnded);
    sigaction(SIGXFSZ, nullptr, &fileTooLarge);
    getrlimit(RLIMIT_NOFILE, &descriptors);
    pthread_atfork(nullptr, nullptr, RestoreSignals);
}

} // namespace

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
