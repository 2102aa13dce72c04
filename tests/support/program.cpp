#include "support/program.h"

#include "support/eventually.h"
#include "support/files.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>

using namespace std::chrono_literals;

namespace {

constexpr char OUTPUT[] = "stdout";
constexpr char ERRORS[] = "stderr";

void Redirect(int fd, const std::string& path)
{
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (file < 0 || ::dup2(file, fd) < 0) {
        ::_exit(126);
    }
}

} // namespace

Program::Program(const std::vector<std::string>& arguments)
{
    const std::string output = m_directory / OUTPUT;
    const std::string errors = m_directory / ERRORS;
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) {
        pointers.push_back(const_cast<char*>(argument.c_str()));
    }
    pointers.push_back(nullptr);
    m_pid = ::fork();
    if (m_pid == 0) {
        Redirect(STDOUT_FILENO, output);
        Redirect(STDERR_FILENO, errors);
        ::execv(pointers[0], pointers.data());
        ::_exit(127);
    }
}

Program::~Program()
{
    if (m_pid > 0) {
        Signal(SIGKILL);
        Wait();
    }
}

int Program::Wait()
{
    int status = 0;
    if (!Eventually(20s, [&] { return ::waitpid(m_pid, &status, WNOHANG) != 0; })) {
        return -1000;
    }
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

void Program::Signal(int number) const
{
    ::kill(m_pid, number);
}

std::string Program::Output() const
{
    return ReadFile(m_directory / OUTPUT);
}

std::string Program::Errors() const
{
    return ReadFile(m_directory / ERRORS);
}

Ended RunToEnd(const std::string& program, std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), program);
    Program running(arguments);
    const int status = running.Wait();
    return {status, running.Output(), running.Errors()};
}

bool Has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}
