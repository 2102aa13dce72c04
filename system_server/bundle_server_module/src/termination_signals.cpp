#include "termination_signals.h"

#include <pthread.h>

#include <initializer_list>

namespace SystemServer {

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

} // namespace SystemServer
