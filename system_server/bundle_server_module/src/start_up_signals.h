#ifndef START_UP_SIGNALS_H
#define START_UP_SIGNALS_H

#include <atomic>
#include <thread>

namespace SystemServer {

/// Makes SIGINT, SIGTERM and SIGQUIT end the server while it starts. For most processes the default effect does this.
/// But the kernel does not deliver signals with their default effect to process 1, which a server in a container may
/// be. There, this object blocks the signals on this thread and on all threads that it starts. A thread of its own
/// takes them and ends the process with status 128 plus the signal's number.
class StartUpSignals {
public:
    /// Called on the main thread, before any other thread is started. If the thread for the signals cannot be created,
    /// this is logged, and the signals wait until the start-up is over.
    StartUpSignals();
    StartUpSignals(const StartUpSignals&) = delete;
    StartUpSignals& operator=(const StartUpSignals&) = delete;
    /// As LeaveToLoop.
    ~StartUpSignals();

    /// Leaves the signals to the event loop, those that are pending included. They stay blocked on this thread. May be
    /// called again.
    void LeaveToLoop();

private:
    void EndProcessAtSignal() const;

    std::atomic<bool> m_isOver{false};
    std::thread m_thread;
};

} // namespace SystemServer

#endif
