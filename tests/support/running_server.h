#ifndef TESTS_SUPPORT_RUNNING_SERVER_H
#define TESTS_SUPPORT_RUNNING_SERVER_H

#include <bolt.h>

#include <sys/types.h>

#include <functional>
#include <future>
#include <string>
#include <thread>

/// Registers a service with the protocol's callbacks. Both must outlive the event manager's loop.
int RegisterService(const std::string& service, bolt_event_mgr* mgr, const bolt_protocol_ops& protocol);

/// Ends the loop that this thread runs or is about to run.
void EndLoopOfThisThread();

/// A service on a thread of this process.
class RunningServer {
public:
    RunningServer(const std::string& service, const bolt_protocol_ops& protocol);
    RunningServer(const RunningServer&) = delete;
    RunningServer& operator=(const RunningServer&) = delete;
    ~RunningServer() { End(); }

    bool IsRegistered() const { return m_isRegistered; }

    /// Ends the loop by a signal to its thread. Returns what bolt_event_mgr_run returned.
    int End();

private:
    void Serve(const std::string& service, const bolt_protocol_ops& protocol, std::promise<bool> registered);

    std::thread m_thread;
    bool m_isRegistered = false;
    int m_result = -1;
};

/// A service in a child process.
class ServerProcess {
public:
    struct Steps {
        std::function<void()> first = [] {}; ///< before the event manager is made
        std::function<int(int)> last = [](int result) {
            return result;
        }; ///< gets the loop's result, returns the exit status
    };
    ServerProcess(const std::string& service, const bolt_protocol_ops& protocol, const Steps& steps);
    ServerProcess(const std::string& service, const bolt_protocol_ops& protocol)
        : ServerProcess(service, protocol, Steps())
    {}
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;
    /// Kills it unless it has been waited for.
    ~ServerProcess();

    bool IsRegistered() const { return m_isRegistered; }
    pid_t Pid() const { return m_pid; }

    void Signal(int number) const;

    /// Waits for its end. Returns the exit status, or the negative signal; -1000 when it does not end within seconds.
    int Wait();

private:
    pid_t m_pid;
    bool m_isRegistered = false;
};

/// A protocol for tests. The method of a request, without the response flag, selects the action.
enum TestMethod : unsigned char {
    ECHO = 1,      ///< sends the request back, with status 200
    BIG = 2,       ///< replies with BIG_CONTENT bytes
    THROW = 3,     ///< throws
    FLOOD = 4,     ///< replies with BIG_CONTENT bytes until a reply is refused, then with an empty one
    INSPECT = 5,   ///< replies with the number of new descriptors that a program would inherit
    THROW_INT = 6, ///< throws an int
};
constexpr int BIG_CONTENT = 60000;
extern const bolt_protocol_ops g_testProtocol;

/// The number of contents without a NUL behind them, the number of announced connections, and the result of the last
/// FLOOD: how many replies were taken, and whether the reply after the refused one was refused too.
int ContentsWithoutNul();
int AnnouncedConnections();
int RepliesTakenInFlood();
bool IsRefusedAfterFlood();

/// Records the descriptors that are open now. INSPECT does not count them.
void RememberDescriptors();

#endif
