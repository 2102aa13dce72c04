#include "platform/log_fixture.h"

#include "support/match.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

std::string MessageOf(const std::string& record)
{
    const auto found = Match(record, std::string(TIME) + " [A-Z]+ [0-9]+ [0-9]+ [0-9]+ [0-9]+ [^ ]+ (.*)");
    return found.empty() ? "no record: " + record : found[2];
}

int TheLog::InChild(const std::function<void()>& steps)
{
    const pid_t child = ::fork();
    if (child == 0) {
        const int fd = ::open(m_standardError.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        ::dup2(fd, STDERR_FILENO);
        steps();
        ::_exit(0);
    }
    m_child = child;
    int status = -1;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int TheLog::InChildWithFile(const std::function<void()>& steps)
{
    return InChild([&] {
        ::setenv("ZQ_LOG_FILE", m_file.c_str(), 1);
        steps();
    });
}

void TheLog::ExpectComplaintOf(int error) const
{
    const auto lines = Lines(ReadFile(m_standardError));
    ASSERT_EQ(lines.size(), 2U) << ReadFile(m_standardError);
    EXPECT_EQ(MessageOf(lines[0]), "ZQ_LOG_FILE[" + m_file + "] cannot be opened for writing, errno " +
                                       std::to_string(error) + ": the log goes to standard error.");
}
