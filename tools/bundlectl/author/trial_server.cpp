#include "trial_server.h"

#include "common/unique_fd.h"
#include "model/end_name.h"
#include "private_run.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <thread>
#include <vector>

namespace Trials {

namespace {

using Common::UniqueFd;

UniqueFd OpenOrThrow(const char* path, int flags)
{
    UniqueFd fd(::open(path, flags | O_CLOEXEC, 0644));
    if (!fd.IsOpen()) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    return fd;
}

/// Becomes the server. Uses only calls that are safe after a fork.
[[noreturn]] void Become(const char* program, char* const* arguments, int input, int output)
{
    sigset_t none;
    ::sigemptyset(&none);
    ::setpgid(0, 0);
    ::dup2(input, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execv(program, arguments);
    ::_exit(127);
}

std::string WriteConfiguration(const std::string& directory, const std::string& collection, const std::string& loader)
{
    std::string path = directory + "/bundle-server.ini";
    std::ofstream file(path);
    file << "[global]\nbundle_collection_dir = " << collection << "\n";
    if (!loader.empty()) {
        file << "server_submodule_dir = " << loader << "\n";
    }
    return path;
}

std::string MakeLog(const std::string& directory)
{
    std::filesystem::create_directories(directory + "/log");
    return directory + "/log/bundle-server.log";
}

} // namespace

TrialServer::TrialServer(const ServerPrograms& programs, const std::string& collection, const std::string& directory)
    : m_program(programs.server), m_configuration(WriteConfiguration(directory, collection, programs.loaderDirectory)),
      m_log(MakeLog(directory))
{
    Start();
}

void TrialServer::Start()
{
    m_end.clear();
    const UniqueFd input = OpenOrThrow("/dev/null", O_RDONLY);
    const UniqueFd output = OpenOrThrow(m_log.c_str(), O_WRONLY | O_CREAT | O_APPEND);
    ::setenv("ZQ_LOG_FILE", m_log.c_str(), 1);
    ::unsetenv("JOURNAL_STREAM");
    // bundlectl recognises servers among the processes by this name, independent of the program's file name.
    std::vector<std::string> words{"bundle_server", "-f", m_configuration};
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    m_pid = ::fork();
    if (m_pid == 0) {
        Become(m_program.c_str(), arguments.data(), input.Get(), output.Get());
    }
    if (m_pid < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
}

TrialServer::~TrialServer()
{
    constexpr std::chrono::milliseconds step(10);
    constexpr int steps = 100;
    // The server ends first, because it would relaunch ended items.
    for (int i = 0; i < steps && TakeEnd().empty(); ++i) {
        ::kill(m_pid, SIGTERM);
        std::this_thread::sleep_for(step);
    }
    if (TakeEnd().empty()) {
        ::kill(m_pid, SIGKILL);
    }
    EndAllProcesses(step * steps);
}

std::string TrialServer::TakeEnd()
{
    int status = 0;
    for (pid_t pid = ::waitpid(-1, &status, WNOHANG); pid > 0; pid = ::waitpid(-1, &status, WNOHANG)) {
        if (pid == m_pid) {
            const bool isSignal = WIFSIGNALED(status);
            m_end = Model::NameOfEnd(isSignal, isSignal ? WTERMSIG(status) : WEXITSTATUS(status));
        }
    }
    return m_end;
}

std::unique_ptr<Model::Snapshot> TrialServer::Look() const
{
    Model::Choice choice;
    choice.configuration = m_configuration;
    choice.log = m_log;
    return Model::TakeSnapshot(choice, Model::LogDepth::EVERYTHING);
}

} // namespace Trials
