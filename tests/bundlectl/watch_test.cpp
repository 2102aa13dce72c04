// bundlectl status --watch on a pseudo-terminal.
#include "bundlectl/verb_test.h"

#include "common/unique_fd.h"
#include "support/private_mnt.h"

#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <string>

namespace {

const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

/// A terminal with a program in it.
class Watched {
public:
    Watched(unsigned short rows, unsigned short columns)
    {
        const winsize size{rows, columns, 0, 0};
        int master = -1;
        m_pid = ::forkpty(&master, nullptr, nullptr, &size);
        if (m_pid == 0) {
            ::setenv("TERM", "xterm", 1);
            ::setenv("LC_ALL", "C", 1);
            ::execl(BUNDLECTL_PROGRAM, "bundlectl", "status", "--watch", nullptr);
            ::_exit(127);
        }
        m_master = Common::UniqueFd(master);
    }
    Watched(const Watched&) = delete;
    Watched& operator=(const Watched&) = delete;
    ~Watched()
    {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
    }

    /// Whether the text is drawn within seconds. Skips the output up to it.
    bool Shows(const std::string& text)
    {
        return Eventually(std::chrono::seconds(20), [&] {
            Read();
            const std::size_t at = m_drawn.find(text, m_seen);
            m_seen = at == std::string::npos ? m_seen : at + text.size();
            return at != std::string::npos;
        });
    }
    void Press(char key) const { ASSERT_EQ(::write(m_master.Get(), &key, 1), 1); }
    void Resize(unsigned short rows, unsigned short columns) const
    {
        const winsize size{rows, columns, 0, 0};
        ASSERT_EQ(::ioctl(m_master.Get(), TIOCSWINSZ, &size), 0);
    }
    /// The exit status.
    int Wait()
    {
        int status = 0;
        const bool hasEnded = Eventually(std::chrono::seconds(20), [&] {
            Read();
            return ::waitpid(m_pid, &status, WNOHANG) == m_pid;
        });
        m_pid = hasEnded ? 0 : m_pid;
        return hasEnded && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    bool Echoes() const
    {
        termios settings{};
        return ::tcgetattr(m_master.Get(), &settings) == 0 && (settings.c_lflag & ECHO) != 0;
    }
    const std::string& Drawn() const { return m_drawn; }

private:
    void Read()
    {
        pollfd watched{m_master.Get(), POLLIN, 0};
        std::array<char, 4096> bytes{};
        while (::poll(&watched, 1, 0) > 0) {
            const ssize_t size = ::read(m_master.Get(), bytes.data(), bytes.size());
            if (size <= 0) {
                return;
            }
            m_drawn.append(bytes.data(), static_cast<std::size_t>(size));
        }
    }

    Common::UniqueFd m_master;
    pid_t m_pid = -1;
    std::string m_drawn;
    std::size_t m_seen = 0;
};

class WatchedStatus : public VerbTest {};

constexpr const char SHOW_CURSOR[] = "\033[?25h";

} // namespace

TEST_F(WatchedStatus, DrawsAnewAndEndsOnQ)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    Serve();
    Watched watched(24, 80);
    ASSERT_TRUE(watched.Shows("1 of 1 bundle is Active")) << watched.Drawn();
    EXPECT_FALSE(watched.Echoes());
    EXPECT_EQ(watched.Drawn().find("\033[2J"), watched.Drawn().rfind("\033[2J")) << "the screen is cleared once only";
    collection.Bundle("clock").Write();
    EXPECT_TRUE(watched.Shows("clock"));
    watched.Press('q');
    EXPECT_EQ(watched.Wait(), 0);
    EXPECT_TRUE(Has(watched.Drawn(), SHOW_CURSOR));
    EXPECT_TRUE(watched.Echoes());
}

TEST_F(WatchedStatus, EndsOnControlCAndLeavesTheTerminalAsItWas)
{
    Serve();
    Watched watched(24, 80);
    ASSERT_TRUE(watched.Shows("q quits"));
    watched.Press('\003');
    EXPECT_EQ(watched.Wait(), 0);
    EXPECT_TRUE(Has(watched.Drawn(), SHOW_CURSOR));
    EXPECT_TRUE(watched.Echoes());
}

TEST_F(WatchedStatus, FitsASmallerTerminalAtOnce)
{
    for (int number = 10; number < 30; ++number) {
        collection.Bundle("bundle" + std::to_string(number)).Write();
    }
    Serve();
    Watched watched(40, 80);
    ASSERT_TRUE(watched.Shows("bundle29")) << watched.Drawn();
    const std::size_t before = watched.Drawn().size();
    watched.Resize(10, 40);
    ASSERT_TRUE(watched.Shows("\033[H"));
    ASSERT_TRUE(watched.Shows("\033[J"));
    const std::size_t last = watched.Drawn().rfind("\033[H");
    ASSERT_GE(last, before);
    EXPECT_FALSE(Has(watched.Drawn().substr(last), "bundle29"));
    watched.Press('q');
    EXPECT_EQ(watched.Wait(), 0);
}
