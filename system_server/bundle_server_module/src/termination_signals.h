#ifndef TERMINATION_SIGNALS_H
#define TERMINATION_SIGNALS_H

#include <csignal>

namespace SystemServer {

/// SIGINT, SIGTERM and SIGQUIT: the signals that end the server. The main thread alone takes them.
sigset_t TerminationSignals();

/// While it lives, the calling thread blocks the signals that end the server. A thread that is created meanwhile keeps
/// them blocked, so the main thread gets them. Destroyed on the thread that made it. Does not fail.
class TerminationSignalsBlocked {
public:
    TerminationSignalsBlocked();
    /// Restores the thread's former signal mask.
    ~TerminationSignalsBlocked();
    TerminationSignalsBlocked(const TerminationSignalsBlocked&) = delete;
    TerminationSignalsBlocked& operator=(const TerminationSignalsBlocked&) = delete;

private:
    sigset_t m_before;
};

} // namespace SystemServer

#endif
