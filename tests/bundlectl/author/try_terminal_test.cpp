// bundlectl try on a terminal, and in a pipe.
#include "bundlectl/author/trial_test.h"
#include "common/unique_fd.h"
#include "support/eventually.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

using namespace std::chrono_literals;

namespace {

constexpr const char SERVES[] = "bundle server start running...";
constexpr const char CTRL_C = '\003';

/// A program on a terminal of its own.
class OnTerminal {
public:
    /// @param variable of the program's environment, as in "NAME=value"
    OnTerminal(std::vector<std::string> words, std::string variable)
    {
        std::vector<char*> arguments;
        std::transform(words.begin(), words.end(), std::back_inserter(arguments),
                       [](std::string& word) { return word.data(); });
        arguments.push_back(nullptr);
        int terminal = -1;
        m_pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
        if (m_pid == 0) {
            ::setenv("TERM", "xterm", 1);
            ::unsetenv("NO_COLOR");
            ::putenv(variable.data());
            ::execv(arguments.front(), arguments.data());
            ::_exit(127);
        }
        m_terminal.Reset(terminal);
        ::fcntl(terminal, F_SETFL, O_NONBLOCK);
    }
    OnTerminal(const OnTerminal&) = delete;
    OnTerminal& operator=(const OnTerminal&) = delete;
    ~OnTerminal()
    {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
    }

    bool Shows(const std::string& text)
    {
        return Eventually(20s, [&] { return Has(Output(), text); });
    }

    void Type(char key) const { EXPECT_EQ(::write(m_terminal.Get(), &key, 1), 1); }

    /// Its exit status; -1 when it does not end, or a signal ends it.
    int Wait()
    {
        int status = 0;
        if (!Eventually(20s, [&] {
                Output();
                return ::waitpid(m_pid, &status, WNOHANG) == m_pid;
            })) {
            return -1;
        }
        m_pid = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    /// What it has written so far.
    const std::string& Output()
    {
        char part[4096];
        for (ssize_t size = 1; size > 0;) {
            size = ::read(m_terminal.Get(), part, sizeof part);
            m_output.append(part, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
        }
        return m_output;
    }

private:
    Common::UniqueFd m_terminal;
    pid_t m_pid = 0;
    std::string m_output;
};

class TryingOnATerminal : public TrialTest {
public:
    TryingOnATerminal()
    {
        // One of the processes makes a session of its own, so the terminal's signal does not reach it.
        bundles.Bundle("radio").Item("tuner.sh", "(" + Sleep() + ") &\nsetsid sh -c '" + Sleep() + "'").Write();
        bundles.Bundle("odd").Mode("7").Write();
    }

    std::vector<std::string> Try() const { return Words({"try", bundles / "radio", bundles / "odd"}); }
};

} // namespace

TEST_F(TryingOnATerminal, ShowsColoursAndEndsEverythingOnCtrlC)
{
    OnTerminal program(Try(), "LC_ALL=C.UTF-8");
    ASSERT_TRUE(program.Shows(SERVES)) << program.Output();
    EXPECT_TRUE(Eventually(20s, [&] { return IsAnySleeping(); }));
    program.Type(CTRL_C);
    EXPECT_EQ(program.Wait(), 0);
    EXPECT_TRUE(Has(program.Output(), "\033[1mradio       \033[0m start bundle[radio] activator done.\r\n"))
        << program.Output();
    EXPECT_TRUE(Has(program.Output(), "\033[31m E \033[0m")) << "an error is red";
    EXPECT_TRUE(Has(program.Output(), "\033[1mradio\033[0m is \033[32mActive\033[0m, 1 of 1 items up.\r\n"))
        << program.Output();
    EXPECT_TRUE(Has(program.Output(), "\033[1modd\033[0m is \033[31mrefused\033[0m"));
    EXPECT_FALSE(IsAnySleeping());
}

TEST_F(TryingOnATerminal, ShowsNoColoursToUsersWhoDoNotWantThem)
{
    OnTerminal program(Try(), "NO_COLOR=1");
    ASSERT_TRUE(program.Shows(SERVES)) << program.Output();
    program.Type(CTRL_C);
    EXPECT_EQ(program.Wait(), 0);
    EXPECT_TRUE(Has(program.Output(), "radio is Active, 1 of 1 items up.\r\n")) << program.Output();
    EXPECT_FALSE(Has(program.Output(), "\033")) << program.Output();
}

TEST_F(TryingOnATerminal, ShowsNoColoursInAPipe)
{
    std::string command;
    for (const std::string& word : Try()) {
        command += "'" + word + "' ";
    }
    OnTerminal program({"/bin/sh", "-c", command + "--for 100ms | cat"}, "LC_ALL=C.UTF-8");
    EXPECT_EQ(program.Wait(), 0);
    EXPECT_TRUE(Has(program.Output(), " is ")) << program.Output();
    EXPECT_FALSE(Has(program.Output(), "\033")) << program.Output();
}
