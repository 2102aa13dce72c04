#include "support/daemon_runner.h"

#include "support/eventually.h"

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
#include <sstream>
#include <system_error>
#include <utility>

namespace {

namespace fs = std::filesystem;

constexpr const char MARK_VARIABLE[] = "BUNDLE_SERVER_TEST";
constexpr int EXEC_FAILED = 127;

std::string ReadFile(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

fs::path ProcPath(pid_t pid, const char* what)
{
    return fs::path("/proc") / std::to_string(pid) / what;
}

std::vector<std::string> SplitAtNul(const std::string& text)
{
    std::vector<std::string> pieces;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\0', begin), text.size());
        pieces.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return pieces;
}

std::vector<fs::path> Entries(const fs::path& directory)
{
    std::vector<fs::path> entries;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error)) {
        entries.push_back(entry->path());
    }
    return entries;
}

// 0 where the text does not begin with one.
int NumberIn(const std::string& text)
{
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

std::vector<pid_t> AllProcesses()
{
    std::vector<pid_t> pids;
    for (const fs::path& entry : Entries("/proc")) {
        const int pid = NumberIn(entry.filename());
        if (pid > 0) {
            pids.push_back(pid);
        }
    }
    return pids;
}

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

// The sum of the first so many of: own time in user and system mode, then the same of the children.
std::chrono::milliseconds TimesOf(pid_t pid, int count)
{
    const std::string stat = ReadFile(ProcPath(pid, "stat"));
    // The command's name, in parentheses, may hold anything.
    std::istringstream fields(stat.substr(std::min(stat.rfind(')') + 1, stat.size())));
    std::string skipped;
    for (int i = 0; i < 11; ++i) {
        fields >> skipped;
    }
    long ticks = 0;
    for (long time = 0; count > 0 && fields >> time; --count) {
        ticks += time;
    }
    return std::chrono::milliseconds(ticks * 1000 / ::sysconf(_SC_CLK_TCK));
}

// Nothing happens when it is not, or no longer, a child of this process.
void Await(pid_t pid)
{
    while (::waitpid(pid, nullptr, 0) == -1 && errno == EINTR) {
    }
}

// Of a program for another machine, which script/test --emulated has the kernel run with an emulator, /proc shows the
// emulator: its name, the path of the program, the program's arguments.
bool IsEmulated(const std::vector<std::string>& commandLine)
{
    return commandLine.size() > 2 && fs::path(commandLine[0]).filename() == "arm-binfmt-P";
}

// A record that says what a child is about to execute, with the item's path.
bool TellsExecution(const std::string& message, const std::string& path)
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
    // Orphans come to this process, which can then wait for them: also where nobody else would.
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

    Reap();
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
    ::prctl(PR_SET_PDEATHSIG, SIGKILL); // not even a test that is killed leaves a daemon behind
    const int null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::dup2(null, STDIN_FILENO);
    Redirect((m_directory / "output").c_str(), STDOUT_FILENO);
    Redirect((m_directory / "errors").c_str(), STDERR_FILENO);
    ::close_range(STDERR_FILENO + 1, ~0U, 0); // what the test was given by whoever runs it is not the daemon's
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

void DaemonRunner::Reap()
{
    if (m_pid > 0) {
        Await(m_pid);
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

// Takes up what has been added since the last time, whole lines only.
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
        if (TellsExecution(record.message, path)) {
            pids.push_back(record.pid);
        }
    }
    return pids;
}

pid_t DaemonRunner::WaitForItem(const std::string& bundle, const std::string& item, int launches, Milliseconds timeout)
{
    const std::string daemon = fs::canonical(BUNDLE_SERVER_PROGRAM).string();
    pid_t pid = 0;
    const bool runs = Eventually(timeout, [&] {
        const std::vector<pid_t> pids = PidsOf(bundle, item);
        if (static_cast<int>(pids.size()) < launches) {
            return false;
        }
        pid = pids.back();
        const std::string executable = ProcessOf::Executable(pid);
        return ProcessOf::IsAlive(pid) && !executable.empty() && executable != daemon;
    });
    return runs ? pid : 0;
}

int DaemonRunner::Threads() const
{
    return static_cast<int>(Entries(ProcPath(m_pid, "task")).size());
}

std::vector<std::string> DaemonRunner::ThreadNames() const
{
    std::vector<std::string> names;
    for (const fs::path& task : Entries(ProcPath(m_pid, "task"))) {
        std::string name = ReadFile(task / "comm");
        name.erase(std::min(name.find('\n'), name.size()));
        names.push_back(name);
    }
    return names;
}

std::string DaemonRunner::StateOfThread(const std::string& name) const
{
    for (const fs::path& task : Entries(ProcPath(m_pid, "task"))) {
        if (ReadFile(task / "comm") == name + "\n") {
            const std::string stat = ReadFile(task / "stat");
            const std::size_t afterName = stat.rfind(") ");
            return afterName == std::string::npos ? "" : stat.substr(afterName + 2, 1);
        }
    }
    return {};
}

std::map<int, std::string> DaemonRunner::Descriptors() const
{
    return ProcessOf::Descriptors(m_pid);
}

long DaemonRunner::ResidentKilobytes() const
{
    return NumberIn(ProcessOf::Status(m_pid, "VmRSS"));
}

std::vector<pid_t> DaemonRunner::Descendants() const
{
    const std::string mark = std::string(MARK_VARIABLE) + "=" + m_mark;
    std::vector<pid_t> descendants;
    for (const pid_t pid : AllProcesses()) {
        if (pid != m_pid && ProcessOf::IsAlive(pid) && Contains(SplitAtNul(ReadFile(ProcPath(pid, "environ"))), mark)) {
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
        if (!program.empty()) { // it has not ended meanwhile
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
    // Those that are just being born, or just execute, are found by the next look.
    Eventually(PATIENCE, [this, &killed] {
        ::kill(-m_pid, SIGKILL); // the daemon, a zombie at the least, keeps the number of the group
        const std::vector<pid_t> left = Descendants();
        for (const pid_t pid : left) {
            ::kill(pid, SIGKILL);
            killed.push_back(pid);
        }
        return left.empty();
    });
    for (const pid_t pid : killed) {
        Await(pid);
    }
    Reap();
}

LogRecord::LogRecord(std::string text) : line(std::move(text))
{
    std::istringstream columns(line);
    std::string skipped;
    columns >> skipped >> level >> skipped >> skipped >> pid >> thread >> source;
    columns.get();
    std::getline(columns, message);
}

namespace ProcessOf {

bool IsAlive(pid_t pid)
{
    const std::string state = Status(pid, "State");
    return !state.empty() && state[0] != 'Z' && state[0] != 'X';
}

std::vector<pid_t> Zombies(pid_t parent)
{
    std::vector<pid_t> zombies;
    for (const pid_t pid : AllProcesses()) {
        if (NumberIn(Status(pid, "PPid")) == parent && Status(pid, "State").rfind('Z', 0) == 0) {
            zombies.push_back(pid);
        }
    }
    return zombies;
}

std::vector<std::string> CommandLine(pid_t pid)
{
    std::vector<std::string> words = SplitAtNul(ReadFile(ProcPath(pid, "cmdline")));
    if (IsEmulated(words)) {
        words.erase(words.begin(), words.begin() + 2);
    }
    return words;
}

std::string Executable(pid_t pid)
{
    std::error_code error;
    const std::vector<std::string> words = SplitAtNul(ReadFile(ProcPath(pid, "cmdline")));
    return (IsEmulated(words) ? fs::canonical(words[1], error) : fs::read_symlink(ProcPath(pid, "exe"), error))
        .string();
}

std::map<int, std::string> Descriptors(pid_t pid)
{
    std::map<int, std::string> descriptors;
    for (const fs::path& entry : Entries(ProcPath(pid, "fd"))) {
        std::error_code error;
        const std::string target = fs::read_symlink(entry, error).string();
        if (!error) {
            descriptors[NumberIn(entry.filename())] = target;
        }
    }
    return descriptors;
}

std::string Status(pid_t pid, const std::string& field)
{
    std::ifstream status(ProcPath(pid, "status"));
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(field + ":", 0) == 0) {
            const std::size_t value = line.find_first_not_of(" \t", field.size() + 1);
            return value == std::string::npos ? "" : line.substr(value);
        }
    }
    return {};
}

std::string Limit(pid_t pid, const std::string& name)
{
    std::ifstream limits(ProcPath(pid, "limits"));
    for (std::string line; std::getline(limits, line);) {
        if (line.rfind(name, 0) == 0) {
            return line;
        }
    }
    return {};
}

std::chrono::milliseconds ProcessorTime(pid_t pid)
{
    return TimesOf(pid, 2);
}

std::chrono::milliseconds ProcessorTimeWithChildren(pid_t pid)
{
    return TimesOf(pid, 4);
}

} // namespace ProcessOf
