#ifndef TERMINATION_SIGNALS_H
#define TERMINATION_SIGNALS_H

#include <csignal>

namespace SystemServer {

/// SIGINT, SIGTERM and SIGQUIT: the signals that end the server. The main thread alone takes them.
sigset_t TerminationSignals();

/// While it lives, the calling thread blocks the signals that end the server. A thread created meanwhile keeps them
/// blocked for good, which leaves them to the main thread. Destroyed on the thread that made it. Does not fail.
class TerminationSignalsBlocked {
public:
    TerminationSignalsBlocked();
    /// Gives the thread the signal mask back that it had before.
    ~TerminationSignalsBlocked();
    TerminationSignalsBlocked(const TerminationSignalsBlocked&) = delete;
    TerminationSignalsBlocked& operator=(const TerminationSignalsBlocked&) = delete;

private:
    sigset_t m_before;
};

} // namespace SystemServer

#endif
