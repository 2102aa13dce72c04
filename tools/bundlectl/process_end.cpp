#include "process_end.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

EndingProcess::EndingProcess(const Model::ProcessStat& seen, const std::string& program, const Model::Proc& proc)
    : m_fd(static_cast<int>(::syscall(SYS_pidfd_open, seen.pid, 0)))
{
    if (!m_fd.IsOpen()) {
        m_trouble = errno == ESRCH ? "it has ended" : std::string("it cannot be held: ") + std::strerror(errno);
        return;
    }
    // The descriptor holds the process from here on, so the comparison cannot be about another process with the same
    // pid.
    const auto now = proc.Stat(seen.pid);
    if (!now || now->startTicks != seen.startTicks || proc.Link(seen.pid, "exe").value_or("") != program) {
        m_fd.Reset();
        m_trouble = "it has become another process or program";
    }
}

bool EndingProcess::Send(int signal)
{
    if (::syscall(SYS_pidfd_send_signal, m_fd.Get(), signal, nullptr, 0) == 0 || errno == ESRCH) {
        return true;
    }
    m_trouble = std::string("it cannot be ended: ") + std::strerror(errno);
    return false;
}

bool EndingProcess::WaitForEnd(std::chrono::milliseconds limit) const
{
    pollfd watched{m_fd.Get(), POLLIN, 0};
    const auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        const int ready =
            ::poll(&watched, 1, static_cast<int>(std::max(left.count(), std::chrono::milliseconds::rep{0})));
        if (ready >= 0 || errno != EINTR) {
            return ready > 0;
        }
    }
}
