#include "child_wait.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace SystemServer {

namespace {

int WaitId(idtype_t type, pid_t id, siginfo_t& info, int options)
{
    int result = 0;
    do {
        info.si_pid = 0;
        result = waitid(type, static_cast<id_t>(id), &info, options);
    } while (result == -1 && errno == EINTR);
    return result;
}

bool IsDeadIn(pid_t group, int pid)
{
    siginfo_t info{};
    return WaitId(P_PID, pid, info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid && getpgid(pid) == group;
}

} // namespace

ChildWait::ChildWait(KnownChildren knownChildren) : m_knownChildren(std::move(knownChildren)) {}

ChildWait::~ChildWait() = default;

int ChildWait::Next(pid_t group)
{
    if (m_round.empty()) {
        siginfo_t info{};
        if (WaitId(P_PGID, group, info, WEXITED | WNOWAIT) == -1) {
            return -1;
        }
        m_round = RetryOnBadAlloc(info.si_pid, [&] { return FindDead(group, info.si_pid); });
    }
    const int pid = m_round.front();
    m_round.pop_front();
    return pid;
}

// The result includes the first child, even if it is not an item.
std::list<int> ChildWait::FindDead(pid_t group, int first) const
{
    std::list<int> dead{first};
    for (const int pid : m_knownChildren()) {
        if (pid != first && IsDeadIn(group, pid)) {
            dead.push_back(pid);
        }
    }
    return dead;
}

} // namespace SystemServer
