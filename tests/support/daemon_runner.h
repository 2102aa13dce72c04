#ifndef TESTS_SUPPORT_DAEMON_RUNNER_H
#define TESTS_SUPPORT_DAEMON_RUNNER_H

#include "support/log_record.h"
#include "support/process_info.h"
#include "support/temporary_directory.h"

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

/// How a process has ended.
struct ProcessEnd {
    int status = -1; ///< the exit status, -1 when a signal has killed it
    int signal = 0;  ///< that signal, 0 when it has exited
};

/// The built daemon, run on a collection by a test:
///
///     const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);
///
///     DaemonRunner daemon(collection);
///     ASSERT_TRUE(daemon.StartServing());
///     EXPECT_TRUE(daemon.WaitForLog("bundle[radio] state changing[Starting] -> [Active]"));
///     EXPECT_EQ(daemon.Stop(SIGTERM).status, 0);
///
/// The daemon leads its own process group. It writes its log, its output and its errors to files in a temporary
/// directory of the runner. It uses the service directory of the test program, which therefore needs a private /mnt. A
/// test program links daemon_runner.cpp and gets the daemon's path from the definition BUNDLE_SERVER_PROGRAM;
/// system_test(...) in tests/system/CMakeLists.txt does both.
///
/// The destructor kills the daemon and every process that descends from it: items, scripts, their children, orphans,
/// and processes in other groups. Nothing here throws when the daemon misbehaves. The return values report it.
class DaemonRunner {
public:
    using Milliseconds = std::chrono::milliseconds;

    /// Waits are generous: a machine that runs many tests at once is slow, and only a failing test waits this long.
    static constexpr Milliseconds PATIENCE{30'000};

    /// @param collection the path as the configuration has it; need not exist
    explicit DaemonRunner(std::string collection);
    DaemonRunner(const DaemonRunner&) = delete;
    DaemonRunner& operator=(const DaemonRunner&) = delete;
    ~DaemonRunner();

    // Before the start.

    /// Sets a key of the configuration, such as "global.server_submodule_dir"; an empty value leaves the key out.
    void Configure(const std::string& key, const std::string& value);
    /// Sets the file that the daemon logs to and that the functions below read. Empty: the daemon logs to standard
    /// error, and the functions below find nothing.
    void SetLogFile(const std::string& path) { m_logFile = path; }
    /// Adds a variable to the daemon's environment. It inherits the others from the test.
    void SetEnvironment(const std::string& name, const std::string& value);
    /// Sets the whole command line after the program's name, in place of "-f" and the generated configuration.
    void SetArguments(std::vector<std::string> arguments);
    /// Sets a function that the forked process calls just before the exec of the daemon. It may only do what is safe
    /// after a fork.
    void SetPreparation(std::function<void()> preparation);

    /// Starts the daemon and returns at once. Main thread only. A second start needs the first daemon's end; the log
    /// and the other files then continue.
    void Start();
    /// Starts it and waits until its start-up is done and its service is registered.
    bool StartServing(Milliseconds timeout = PATIENCE);

    // While it runs, and after.

    pid_t Pid() const { return m_pid; }
    /// Whether it has not ended yet. A zombie has ended.
    bool IsRunning();
    void Signal(int signal) const;
    /// Empty when it has not ended within that time.
    std::optional<ProcessEnd> WaitForEnd(Milliseconds timeout = PATIENCE);
    /// Sends the signal and waits for the end. Kills a daemon that still runs after that time: the result then shows
    /// SIGKILL.
    ProcessEnd Stop(int signal = SIGTERM, Milliseconds timeout = PATIENCE);
    /// When the latest daemon was started.
    std::chrono::steady_clock::time_point StartTime() const { return m_startTime; }

    std::string Output() const;
    std::string Errors() const;

    // The log of the daemon, and of its children up to their exec.

    /// Whether that many records whose message contains the text exist within that time.
    bool WaitForLog(const std::string& text, int count = 1, Milliseconds timeout = PATIENCE);
    int CountInLog(const std::string& text);
    const std::vector<LogRecord>& Log();
    /// The messages in their order, of all processes or of one.
    std::vector<std::string> Messages(pid_t pid = 0);
    std::string LogFile() const { return m_logFile; }

    // Processes and resources, from /proc.

    /// The processes that have executed an item, or tried to, the latest last. They are found by the records that they
    /// write just before the exec. The bundle is named by its directory.
    std::vector<pid_t> PidsOf(const std::string& bundle, const std::string& item);
    /// Waits until the item has been launched that many times in all and the latest child has executed it. Returns its
    /// pid, 0 when the time is over.
    pid_t WaitForItem(const std::string& bundle, const std::string& item, int launches = 1,
                      Milliseconds timeout = PATIENCE);

    int Threads() const;
    std::vector<std::string> ThreadNames() const;
    /// "S" while it sleeps, "R" while it runs; empty when no thread has that name.
    std::string StateOfThread(const std::string& name) const;
    /// What each open descriptor refers to.
    std::map<int, std::string> Descriptors() const;
    long ResidentKilobytes() const;

    /// Every living process that descends from the daemon, without the daemon itself.
    std::vector<pid_t> Descendants() const;
    /// The programs that they execute, each as often as it runs.
    std::multiset<std::string> Programs() const;

private:
    std::string WriteConfiguration() const;
    [[noreturn]] void BecomeDaemon(char* const* arguments, char* const* environment) const;
    void TakeEnd();
    void ReapDaemon();
    void ReadLog();
    void KillAll();

    TemporaryDirectory m_directory;
    std::map<std::string, std::string> m_settings;
    std::map<std::string, std::string> m_environment;
    std::optional<std::vector<std::string>> m_arguments;
    std::function<void()> m_preparation;
    std::string m_mark; // in the environment of every process that descends from the daemon
    pid_t m_pid = 0; // stays a zombie until the next start or the end of the test, so that no process gets its number
    std::optional<ProcessEnd> m_end;
    std::chrono::steady_clock::time_point m_startTime;
    std::string m_logFile = m_directory / "log";
    std::vector<LogRecord> m_log; // as far as it has been read
    std::size_t m_logRead = 0;
};

#endif
