#ifndef START_UP_SIGNALS_H
#define START_UP_SIGNALS_H

#include <atomic>
#include <thread>

namespace SystemServer {

/// What SIGINT, SIGTERM and SIGQUIT do while the server starts. They end it, as they would any process, and nothing is
/// needed for that; but process 1, as a server in a container may be, gets no signal from the kernel that would have
/// its default effect. There the signals are blocked from the construction on, on this thread and all that it starts,
/// and a thread takes them and ends the process with status 128 and the signal's number.
class StartUpSignals {
public:
    /// On the main thread, before any other thread is started. Without a thread for the signals, which is logged, they
    /// wait until the start-up is over.
    StartUpSignals();
    StartUpSignals(const StartUpSignals&) = delete;
    StartUpSignals& operator=(const StartUpSignals&) = delete;
    /// As LeaveToLoop.
    ~StartUpSignals();

    /// Ends that: the event loop takes the signals from now on, those that are pending included. They stay blocked on
    /// this thread. May be called again.
    void LeaveToLoop();

private:
    void EndProcessAtSignal() const;

    std::atomic<bool> m_isOver{false};
    std::thread m_thread;
};

} // namespace SystemServer

#endif
