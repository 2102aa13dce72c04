#ifndef TESTS_SUPPORT_DAEMON_RUNNER_H
#define TESTS_SUPPORT_DAEMON_RUNNER_H

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

/// A line of the daemon's log.
struct LogRecord {
    explicit LogRecord(std::string text);

    std::string line;  ///< the whole of it
    std::string level; ///< INFO, ERROR
    pid_t pid = 0;
    pid_t thread = 0;
    std::string source; ///< file and line
    std::string message;
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
/// The daemon leads a process group of its own, and writes its log, its output and its errors to files of a temporary
/// directory of the runner's. The service directory is the test program's, which is why that has a private /mnt. A test
/// program links daemon_runner.cpp, and is told the daemon's path by the definition BUNDLE_SERVER_PROGRAM (see
/// tests/system/CMakeLists.txt: system_test(...) does both).
///
/// The destructor kills the daemon and everything that has come out of it, by whatever way: items, scripts, their
/// children, orphans and those in other groups. Nothing here throws when the daemon does not do what is expected: it
/// is what is returned that says so.
class DaemonRunner {
public:
    using Milliseconds = std::chrono::milliseconds;

    /// Waits are generous: a machine that runs many tests at once is slow, and only a failing test waits for long.
    static constexpr Milliseconds PATIENCE{30'000};

    /// @param collection the path as it stands in the configuration; need not be there
    explicit DaemonRunner(std::string collection);
    DaemonRunner(const DaemonRunner&) = delete;
    DaemonRunner& operator=(const DaemonRunner&) = delete;
    ~DaemonRunner();

    // Before the start.

    /// One more key of the configuration, such as "global.server_submodule_dir"; an empty value leaves a key out.
    void Configure(const std::string& key, const std::string& value);
    /// Where the log goes, in place of a file of the runner's; the functions below read the named file. Empty: to
    /// standard error, where they find nothing.
    void SetLogFile(const std::string& path) { m_logFile = path; }
    /// A variable of the daemon's environment, beside those of the test.
    void SetEnvironment(const std::string& name, const std::string& value);
    /// The whole command line after the program's name, in place of "-f" and the generated configuration.
    void SetArguments(std::vector<std::string> arguments);
    /// Called in the daemon's process just before it becomes the daemon; only what is safe after a fork.
    void SetPreparation(std::function<void()> preparation);

    /// Starts the daemon and returns at once; from the test's main thread. Again only after the first one has ended:
    /// the log and the other files then go on.
    void Start();
    /// Starts it and waits until its start-up is over and its service registered.
    bool StartServing(Milliseconds timeout = PATIENCE);

    // While it runs, and after.

    pid_t Pid() const { return m_pid; }
    /// Not yet ended, a zombie having ended.
    bool IsRunning();
    void Signal(int signal) const;
    /// Empty when it has not ended in that time.
    std::optional<ProcessEnd> WaitForEnd(Milliseconds timeout = PATIENCE);
    /// Sends the signal and waits for the end; what still runs after that time is killed, and says so by its signal.
    ProcessEnd Stop(int signal = SIGTERM, Milliseconds timeout = PATIENCE);
    /// The start of the latest daemon.
    std::chrono::steady_clock::time_point StartTime() const { return m_startTime; }

    std::string Output() const;
    std::string Errors() const;

    // The log, of the daemon and of its children up to their exec.

    /// Whether so many records whose message contains the text are written within that time.
    bool WaitForLog(const std::string& text, int count = 1, Milliseconds timeout = PATIENCE);
    int CountInLog(const std::string& text);
    const std::vector<LogRecord>& Log();
    /// The messages in their order: of all, or of one process.
    std::vector<std::string> Messages(pid_t pid = 0);
    std::string LogFile() const { return m_logFile; }

    // Processes and resources, from /proc.

    /// The processes that have executed an item, or tried to, the latest last: by their own records in the log, which
    /// are written just before the exec. The bundle is named by its directory.
    std::vector<pid_t> PidsOf(const std::string& bundle, const std::string& item);
    /// Waits until the item has been launched so many times in all and the latest launch has become the item. Returns
    /// its pid, 0 when the time is over.
    pid_t WaitForItem(const std::string& bundle, const std::string& item, int launches = 1,
                      Milliseconds timeout = PATIENCE);

    int Threads() const;
    std::vector<std::string> ThreadNames() const;
    /// As /proc tells it: "S" for one that sleeps, "R" for one that runs; empty when there is none of that name.
    std::string StateOfThread(const std::string& name) const;
    /// What each open descriptor leads to.
    std::map<int, std::string> Descriptors() const;
    long ResidentKilobytes() const;

    /// Everything alive that has come out of the daemon, the daemon itself left out.
    std::vector<pid_t> Descendants() const;
    /// The programs that these execute, each as often as it runs.
    std::multiset<std::string> Programs() const;

private:
    std::string WriteConfiguration() const;
    [[noreturn]] void BecomeDaemon(char* const* arguments, char* const* environment) const;
    void TakeEnd();
    void Reap();
    void ReadLog();
    void KillAll();

    TemporaryDirectory m_directory;
    std::map<std::string, std::string> m_settings;
    std::map<std::string, std::string> m_environment;
    std::optional<std::vector<std::string>> m_arguments;
    std::function<void()> m_preparation;
    std::string m_mark; // in the environment of all that comes out of the daemon
    pid_t m_pid = 0; // stays a zombie until the next start or the end of the test, so that its number is nobody else's
    std::optional<ProcessEnd> m_end;
    std::chrono::steady_clock::time_point m_startTime;
    std::string m_logFile = m_directory / "log";
    std::vector<LogRecord> m_log; // as far as it has been read
    std::size_t m_logRead = 0;
};

/// What /proc says of any process.
namespace ProcessOf {

bool IsAlive(pid_t pid); ///< there, and no zombie
/// Its children that have ended and have not been waited for.
std::vector<pid_t> Zombies(pid_t parent);
std::vector<std::string> CommandLine(pid_t pid);
std::string Executable(pid_t pid);
std::map<int, std::string> Descriptors(pid_t pid);
/// A field of "status", such as "SigBlk" or "VmRSS"; empty when there is none.
std::string Status(pid_t pid, const std::string& field);
/// A line of "limits", such as that of "Max open files".
std::string Limit(pid_t pid, const std::string& name);
/// Processor time used so far, without and with that of the children it has waited for.
std::chrono::milliseconds ProcessorTime(pid_t pid);
std::chrono::milliseconds ProcessorTimeWithChildren(pid_t pid);

} // namespace ProcessOf

#endif
