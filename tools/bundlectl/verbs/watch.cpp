#include "watch.h"

#include "exit_status.h"

#include "common/unique_fd.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <iostream>

namespace Verbs {

namespace {

constexpr const char HIDE_CURSOR[] = "\033[?25l\033[2J";
constexpr const char SHOW_CURSOR[] = "\033[?25h\n";

/// While it lives, keys arrive at once and are not shown.
class RawKeys {
public:
    RawKeys()
    {
        m_isTerminal = ::tcgetattr(STDIN_FILENO, &m_before) == 0;
        if (m_isTerminal) {
            termios raw = m_before;
            raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
            ::tcsetattr(STDIN_FILENO, TCSANOW, &raw);
        }
    }
    ~RawKeys()
    {
        if (m_isTerminal) {
            ::tcsetattr(STDIN_FILENO, TCSANOW, &m_before);
        }
    }
    RawKeys(const RawKeys&) = delete;
    RawKeys& operator=(const RawKeys&) = delete;

    bool AreThere() const { return m_isTerminal; }

private:
    termios m_before{};
    bool m_isTerminal = false;
};

/// While it lives, the cursor is hidden.
class HiddenCursor {
public:
    HiddenCursor() { Write(HIDE_CURSOR); }
    ~HiddenCursor() { Write(SHOW_CURSOR); }
    HiddenCursor(const HiddenCursor&) = delete;
    HiddenCursor& operator=(const HiddenCursor&) = delete;

    static bool Write(const std::string& text)
    {
        std::size_t done = 0;
        while (done < text.size()) {
            const ssize_t size = ::write(STDOUT_FILENO, text.data() + done, text.size() - done);
            if (size < 0 && errno != EINTR) {
                return false;
            }
            done += size > 0 ? static_cast<std::size_t>(size) : 0;
        }
        return true;
    }
};

/// Each line completely overwrites the former one. The rest of the screen below is cleared.
std::string Picture(const std::string& text, std::size_t rows)
{
    std::string picture = "\033[H";
    std::size_t row = 0;
    for (std::size_t begin = 0; begin < text.size() && row + 1 < rows; ++row) {
        const std::size_t end = text.find('\n', begin);
        picture.append(text, begin, end - begin).append("\033[K\r\n");
        begin = end == std::string::npos ? text.size() : end + 1;
    }
    return picture + "\033[J";
}

/// The reason for the end of a wait.
enum class Cause { TIME, RESIZE, QUIT };

Cause Await(int signals, bool hasKeys, std::chrono::milliseconds interval)
{
    std::array<pollfd, 2> watched{{{signals, POLLIN, 0}, {hasKeys ? STDIN_FILENO : -1, POLLIN, 0}}};
    if (::poll(watched.data(), watched.size(), static_cast<int>(interval.count())) <= 0) {
        return Cause::TIME;
    }
    signalfd_siginfo info{};
    if (watched[0].revents != 0 && ::read(signals, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        return info.ssi_signo == SIGWINCH ? Cause::RESIZE : Cause::QUIT;
    }
    char key = 0;
    const ssize_t size = watched[1].revents != 0 ? ::read(STDIN_FILENO, &key, 1) : 1;
    return size <= 0 || key == 'q' || key == 'Q' ? Cause::QUIT : Cause::RESIZE;
}

Common::UniqueFd TakeSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGWINCH}) {
        sigaddset(&signals, signal);
    }
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    return Common::UniqueFd(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

} // namespace

int Watch(std::chrono::milliseconds interval, const std::function<std::string(const Output::Terminal&)>& draw)
{
    if (!Output::AskTerminal().isTerminal) {
        std::cerr << "bundlectl: --watch needs a terminal.\n";
        return EXIT_USAGE;
    }
    const Common::UniqueFd signals = TakeSignals();
    const RawKeys keys;
    const HiddenCursor cursor;
    do {
        const Output::Terminal terminal = Output::AskTerminal();
        if (!HiddenCursor::Write(Picture(draw(terminal), terminal.rows))) {
            return EXIT_FAILED;
        }
    } while (Await(signals.Get(), keys.AreThere(), interval) != Cause::QUIT);
    return EXIT_DONE;
}

} // namespace Verbs
