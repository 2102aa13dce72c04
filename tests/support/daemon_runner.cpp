#include "support/daemon_runner.h"

#include "support/eventually.h"
#include "support/files.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <utility>

namespace {

namespace fs = std::filesystem;

constexpr const char MARK_VARIABLE[] = "BUNDLE_SERVER_TEST";
constexpr int EXEC_FAILED = 127;

bool Contains(const std::vector<std::string>& pieces, const std::string& piece)
{
    return std::find(pieces.begin(), pieces.end(), piece) != pieces.end();
}

std::vector<char*> Pointers(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

void Redirect(const char* path, int target)
{
    const int fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    ::dup2(fd, target);
}

// Does nothing for a process that is not, or no longer, a child of this process.
void Reap(pid_t pid)
{
    while (::waitpid(pid, nullptr, 0) == -1 && errno == EINTR) {
    }
}

// Whether the message announces that a child executes the item at this path.
bool AnnouncesExecution(const std::string& message, const std::string& path)
{
    const auto beginsWith = [&message](const char* text) { return message.rfind(text, 0) == 0; };
    return (beginsWith("execute binary[") && message.find(path + "].excute command:") != std::string::npos) ||
           (beginsWith("execute shell script[") && message.find(path + "].excute command:") != std::string::npos) ||
           (beginsWith("load dyn lib[") && message.find(path + " -e ") != std::string::npos);
}

} // namespace

DaemonRunner::DaemonRunner(std::string collection)
{
    static std::atomic<int> number{0};
    m_settings["global.bundle_collection_dir"] = std::move(collection);
    m_mark = m_directory.Path().filename().string() + "." + std::to_string(++number);
    // Orphans become children of this process, which can then wait for them.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
}

DaemonRunner::~DaemonRunner()
{
    KillAll();
}

void DaemonRunner::Configure(const std::string& key, const std::string& value)
{
    m_settings[key] = value;
}

void DaemonRunner::SetEnvironment(const std::string& name, const std::string& value)
{
    m_environment[name] = value;
}

void DaemonRunner::SetArguments(std::vector<std::string> arguments)
{
    m_arguments = std::move(arguments);
}

void DaemonRunner::SetPreparation(std::function<void()> preparation)
{
    m_preparation = std::move(preparation);
}

std::string DaemonRunner::WriteConfiguration() const
{
    std::string path = m_directory / "bundle_server.properties";
    std::ofstream file(path);
    for (const auto& [key, value] : m_settings) {
        if (!value.empty()) {
            file << key << " = " << value << '\n';
        }
    }
    return path;
}

void DaemonRunner::Start()
{
    std::vector<std::string> arguments{BUNDLE_SERVER_PROGRAM};
    const std::vector<std::string> rest =
        m_arguments ? *m_arguments : std::vector<std::string>{"-f", WriteConfiguration()};
    arguments.insert(arguments.end(), rest.begin(), rest.end());
    std::vector<std::string> environment;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string text = *variable;
        if (m_environment.count(text.substr(0, text.find('='))) == 0) {
            environment.push_back(text);
        }
    }
    for (const auto& [name, value] : m_environment) {
        environment.emplace_back(name).append("=").append(value);
    }
    environment.push_back("ZQ_LOG_FILE=" + LogFile());
    environment.push_back(std::string(MARK_VARIABLE) + "=" + m_mark);
    const std::vector<char*> argumentPointers = Pointers(arguments);
    const std::vector<char*> environmentPointers = Pointers(environment);

    ReapDaemon();
    m_end.reset();
    m_startTime = std::chrono::steady_clock::now();
    m_pid = ::fork();
    if (m_pid == 0) {
        BecomeDaemon(argumentPointers.data(), environmentPointers.data());
    }
    ::setpgid(m_pid, m_pid);
}

void DaemonRunner::BecomeDaemon(char* const* arguments, char* const* environment) const
{
    ::setpgid(0, 0);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL); // the daemon ends even when the test is killed
    const int null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::dup2(null, STDIN_FILENO);
    Redirect((m_directory / "output").c_str(), STDOUT_FILENO);
    Redirect((m_directory / "errors").c_str(), STDERR_FILENO);
    ::close_range(STDERR_FILENO + 1, ~0U, 0); // the test's inherited descriptors are not the daemon's
    if (m_preparation) {
        m_preparation();
    }
    ::execve(arguments[0], arguments, environment);
    ::_exit(EXEC_FAILED);
}

bool DaemonRunner::StartServing(Milliseconds timeout)
{
    const int before = CountInLog("bundle server start running...");
    Start();
    return WaitForLog("bundle server start running...", before + 1, timeout);
}

void DaemonRunner::TakeEnd()
{
    if (m_end || m_pid <= 0) {
        return;
    }
    siginfo_t info{};
    int result = 0;
    do {
        result = ::waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOHANG | WNOWAIT);
    } while (result == -1 && errno == EINTR);
    if (result == 0 && info.si_pid == m_pid) {
        const bool exited = info.si_code == CLD_EXITED;
        m_end = ProcessEnd{exited ? info.si_status : -1, exited ? 0 : info.si_status};
    }
}

void DaemonRunner::ReapDaemon()
{
    if (m_pid > 0) {
        Reap(m_pid);
        m_pid = 0;
    }
}

bool DaemonRunner::IsRunning()
{
    TakeEnd();
    return m_pid > 0 && !m_end;
}

void DaemonRunner::Signal(int signal) const
{
    if (m_pid > 0) {
        ::kill(m_pid, signal);
    }
}

std::optional<ProcessEnd> DaemonRunner::WaitForEnd(Milliseconds timeout)
{
    Eventually(timeout, [this] { return !IsRunning(); });
    return m_end;
}

ProcessEnd DaemonRunner::Stop(int signal, Milliseconds timeout)
{
    Signal(signal);
    if (!WaitForEnd(timeout)) {
        Signal(SIGKILL);
        WaitForEnd();
    }
    return m_end.value_or(ProcessEnd{});
}

std::string DaemonRunner::Output() const
{
    return ReadFile(m_directory / "output");
}

std::string DaemonRunner::Errors() const
{
    return ReadFile(m_directory / "errors");
}

// Reads the whole lines that were added since the last call.
void DaemonRunner::ReadLog()
{
    std::ifstream file(LogFile(), std::ios::binary);
    file.seekg(static_cast<std::streamoff>(m_logRead));
    for (std::string line; std::getline(file, line) && !file.eof();) {
        m_logRead += line.size() + 1;
        m_log.emplace_back(std::move(line));
    }
}

bool DaemonRunner::WaitForLog(const std::string& text, int count, Milliseconds timeout)
{
    std::size_t looked = 0;
    int found = 0;
    return Eventually(timeout, [&] {
        for (ReadLog(); looked < m_log.size(); ++looked) {
            found += m_log[looked].message.find(text) != std::string::npos ? 1 : 0;
        }
        return found >= count;
    });
}

int DaemonRunner::CountInLog(const std::string& text)
{
    ReadLog();
    return static_cast<int>(std::count_if(m_log.begin(), m_log.end(), [&text](const LogRecord& record) {
        return record.message.find(text) != std::string::npos;
    }));
}

const std::vector<LogRecord>& DaemonRunner::Log()
{
    ReadLog();
    return m_log;
}

std::vector<std::string> DaemonRunner::Messages(pid_t pid)
{
    std::vector<std::string> messages;
    for (const LogRecord& record : Log()) {
        if (pid == 0 || record.pid == pid) {
            messages.push_back(record.message);
        }
    }
    return messages;
}

std::vector<pid_t> DaemonRunner::PidsOf(const std::string& bundle, const std::string& item)
{
    const std::string path = "/" + bundle + "/./bin/" + item;
    std::vector<pid_t> pids;
    for (const LogRecord& record : Log()) {
        if (AnnouncesExecution(record.message, path)) {
            pids.push_back(record.pid);
        }
    }
    return pids;
}

pid_t DaemonRunner::WaitForItem(const std::string& bundle, const std::string& item, int launches, Milliseconds timeout)
{
    const std::string daemon = fs::canonical(BUNDLE_SERVER_PROGRAM).string();
    pid_t pid = 0;
    const bool isRunning = Eventually(timeout, [&] {
        const std::vector<pid_t> pids = PidsOf(bundle, item);
        if (static_cast<int>(pids.size()) < launches) {
            return false;
        }
        pid = pids.back();
        const std::string executable = ProcessOf::Executable(pid);
        return ProcessOf::IsAlive(pid) && !executable.empty() && executable != daemon;
    });
    return isRunning ? pid : 0;
}

int DaemonRunner::Threads() const
{
    return static_cast<int>(ThreadNames().size());
}

std::vector<std::string> DaemonRunner::ThreadNames() const
{
    return ProcessOf::ThreadNames(m_pid);
}

std::string DaemonRunner::StateOfThread(const std::string& name) const
{
    return ProcessOf::StateOfThread(m_pid, name);
}

std::map<int, std::string> DaemonRunner::Descriptors() const
{
    return ProcessOf::Descriptors(m_pid);
}

long DaemonRunner::ResidentKilobytes() const
{
    return std::strtol(ProcessOf::Status(m_pid, "VmRSS").c_str(), nullptr, 10);
}

std::vector<pid_t> DaemonRunner::Descendants() const
{
    const std::string mark = std::string(MARK_VARIABLE) + "=" + m_mark;
    std::vector<pid_t> descendants;
    for (const pid_t pid : ProcessOf::All()) {
        if (pid != m_pid && ProcessOf::IsAlive(pid) && Contains(ProcessOf::Environment(pid), mark)) {
            descendants.push_back(pid);
        }
    }
    return descendants;
}

std::multiset<std::string> DaemonRunner::Programs() const
{
    std::multiset<std::string> programs;
    for (const pid_t pid : Descendants()) {
        const std::string program = ProcessOf::Executable(pid);
        if (!program.empty()) { // an empty name: the process has ended meanwhile
            programs.insert(program);
        }
    }
    return programs;
}

void DaemonRunner::KillAll()
{
    if (m_pid <= 0) {
        return;
    }
    std::vector<pid_t> killed;
    Signal(SIGKILL);
    // The next round finds processes that fork or exec during this one.
    Eventually(PATIENCE, [this, &killed] {
        ::kill(-m_pid, SIGKILL); // the daemon is at least a zombie, so the group's number is still its own
        const std::vector<pid_t> left = Descendants();
        for (const pid_t pid : left) {
            ::kill(pid, SIGKILL);
            killed.push_back(pid);
        }
        return left.empty();
    });
    for (const pid_t pid : killed) {
        Reap(pid);
    }
    ReapDaemon();
}
