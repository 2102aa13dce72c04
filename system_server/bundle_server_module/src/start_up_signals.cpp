#include "start_up_signals.h"

#include "bundle_log.h"
#include "termination_signals.h"

#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <system_error>

namespace SystemServer {

namespace {

constexpr pid_t PROCESS_ONE = 1;
/// A shell reports a process that was killed by a signal with this number plus the signal's number.
constexpr int STATUS_OF_SIGNAL = 128;

} // namespace

StartUpSignals::StartUpSignals()
{
    if (getpid() != PROCESS_ONE) {
        return;
    }
    const sigset_t signals = TerminationSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    try {
        m_thread = std::thread([this] { EndProcessAtSignal(); });
    } catch (const std::system_error& e) {
        BUNDLE_ERROR("no thread for the signals of the start-up, they wait until it is over: %s.", e.what());
    }
}

StartUpSignals::~StartUpSignals()
{
    LeaveToLoop();
}

void StartUpSignals::LeaveToLoop()
{
    if (m_thread.joinable()) {
        m_isOver = true;
        pthread_kill(m_thread.native_handle(), SIGINT); // signals that are pending for the process stay pending
        m_thread.join();
    }
}

void StartUpSignals::EndProcessAtSignal() const
{
    prctl(PR_SET_NAME, "bundle_signals");
    const sigset_t signals = TerminationSignals();
    for (;;) {
        siginfo_t info{};
        const int signal = sigwaitinfo(&signals, &info);
        if (m_isOver && info.si_pid == getpid()) {
            return;
        }
        if (signal != -1) {
            BUNDLE_INFO("signal[%d] during the start-up ends process 1.", signal);
            _exit(STATUS_OF_SIGNAL + signal);
        }
    }
}

} // namespace SystemServer
