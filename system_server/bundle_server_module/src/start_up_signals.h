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
    StartUpSignals();
    StartUpSignals(const StartUpSignals&) = delete;
    StartUpSignals& operator=(const StartUpSignals&) = delete;
    ~StartUpSignals();

    /// Ends that: the signals stay blocked, those that are pending included, for the event loop to take.
    void LeaveToLoop();

private:
    void EndProcessAtSignal() const;

    std::atomic<bool> m_isOver{false};
    std::thread m_thread;
};

} // namespace SystemServer

#endif
