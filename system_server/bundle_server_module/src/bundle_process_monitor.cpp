// The monitor of BundleProcessActivator: it reaps the children and relaunches them.

#include "bundle_log.h"
#include "bundle_process_activator.h"
#include "child_wait.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace SystemServer {

using ProcessInfo = BundleProcessActivator::ProcessInfo;

BundleProcessActivator::Death& BundleProcessActivator::m_death = *new Death;

namespace {

/// The exit codes after which a program is run again. After any other code, 0 and 1 included, it is not.
constexpr std::array<int, 9> RELAUNCH_STATUSES{2, 6, 7, 8, 10, 11, 15, 31, 255};

bool CallsForRelaunch(int status)
{
    return std::find(RELAUNCH_STATUSES.begin(), RELAUNCH_STATUSES.end(), status) != RELAUNCH_STATUSES.end();
}

} // namespace

/// Which children the monitor waits for.
struct BundleProcessActivator::WaitTarget {
    pid_t shown; ///< the group as it is logged: 0 stands for the server's own
    pid_t group;
};

void BundleProcessActivator::Monitor()
{
    prctl(PR_SET_NAME, "bundle_monitor");
    ChildWait deaths(KnownPids);
    while (m_isMonitorRunning) {
        const WaitTarget target = ChooseWaitTarget();
        const bool hasDied = ReapNext(deaths, target.group);
        const int error = errno;
        BUNDLE_INFO("BundleProcessActivator monitor pgid [%d] ", target.shown);
        if (!hasDied) {
            BUNDLE_ERROR("waitpid fail, errno is %d.", error);
            return; // the flag stays set: nothing is supervised until the server is restarted
        }
        if (!m_death.isItem) {
            BUNDLE_INFO("non-bundle process[%d] exit.", m_death.pid);
            continue;
        }
        HandleExit(m_death.pid, m_death.status);
        if (ForgetDeadAndTellWhetherLast()) {
            return; // does not test the flag: a launch may have set it again for a new monitor
        }
    }
}

BundleProcessActivator::WaitTarget BundleProcessActivator::ChooseWaitTarget()
{
    const std::lock_guard<std::mutex> forks(m_forkMutex);
    const std::lock_guard<std::mutex> table(m_pidMapMutex);
    if (m_pidMap.empty()) {
        return {0, getpgrp()};
    }
    const int lowest = m_pidMap.begin()->first;
    const pid_t group = GroupOf(lowest);
    if (group == -1) {
        BUNDLE_INFO("Failed to get pgid of [%d] ", lowest);
        return {0, getpgrp()};
    }
    return {group, group};
}

std::vector<int> BundleProcessActivator::KnownPids()
{
    const std::lock_guard<std::mutex> table(m_pidMapMutex);
    std::vector<int> pids;
    pids.reserve(m_pidMap.size());
    for (const auto& entry : m_pidMap) {
        pids.push_back(entry.first);
    }
    return pids;
}

// Stores the next death in m_death. False, with errno set, when the wait has failed. Another wait in this process, for
// example in a library, may take a death away. Its pid may already belong to a living child. Neither is a failure, but
// losing the same pid twice in a row is.
bool BundleProcessActivator::ReapNext(ChildWait& deaths, pid_t group)
{
    int lost = 0;
    for (;;) {
        const int pid = deaths.Next(group);
        if (pid == -1) {
            return false;
        }
        const int reaped = RetryOnBadAlloc(pid, [pid] { return Reap(pid); });
        if (reaped == pid) {
            return true;
        }
        if (reaped == -1 && (errno != ECHILD || pid == lost)) {
            return false;
        }
        lost = reaped == -1 ? pid : 0;
    }
}

// After the reaping, another child may get the pid. So the child's record is copied and its mark removed before.
// Meanwhile no child is forked and no bundle is stopped.
int BundleProcessActivator::Reap(int pid)
{
    const std::lock_guard<std::mutex> marks(m_ignorePidSetMutex);
    const std::lock_guard<std::mutex> forks(m_forkMutex);
    Death death;
    death.pid = pid;
    {
        const std::lock_guard<std::mutex> table(m_pidMapMutex);
        const auto entry = m_pidMap.find(pid);
        death.isItem = entry != m_pidMap.end();
        death.info = death.isItem ? entry->second : ProcessInfo{};
    }
    const int reaped = waitpid(pid, &death.status, WNOHANG);
    const int error = errno;
    if (reaped == pid || (reaped == -1 && error == ECHILD)) {
        death.isStopped = m_ignorePidSet.erase(pid) != 0;
        m_launches.SetReaped(pid);
    }
    if (reaped == pid) {
        m_death = std::move(death);
    }
    errno = error;
    return reaped;
}

// A record that is missing becomes an empty one.
ProcessInfo BundleProcessActivator::InfoOf(int pid)
{
    return RetryOnBadAlloc(pid, [pid] {
        if (m_death.pid == pid) {
            return m_death.info;
        }
        const std::lock_guard<std::mutex> table(m_pidMapMutex);
        return m_pidMap[pid];
    });
}

void BundleProcessActivator::HandleExit(int pid, int status)
{
    const ProcessInfo info = InfoOf(pid);
    const char* const name = info.processName.c_str();
    if (WIFEXITED(status)) {
        BUNDLE_INFO("%s[%d] normal termination, exit status: %d.", name, pid, WEXITSTATUS(status));
        ExitStatusProc(pid, WEXITSTATUS(status));
    } else if (WIFSIGNALED(status)) {
        HandleSignal(pid, WTERMSIG(status));
    } else if (WIFSTOPPED(status)) {
        BUNDLE_INFO("%s[%d] stopped, signal: %d.", name, pid, WSTOPSIG(status));
    }
}

void BundleProcessActivator::HandleSignal(int pid, int signal)
{
    ProcessInfo info = InfoOf(pid);
    const char* const name = info.processName.c_str();
    BUNDLE_INFO("%s[%d] abnormal termination, signal: %d.", name, pid, signal);
    ZQ_WriteLanguageLog(LANGUAGE_LOG_MODULE, LOG_LEVEL_ERROR, "%s[%d] abnormal termination, signal: %d.",
                        "%s[%d] 异常终止, 信号: %d.", name, pid, signal);
    RetryOnBadAlloc(pid, [&] {
        const std::lock_guard<std::mutex> marks(m_ignorePidSetMutex);
        if (m_death.isStopped) {
            BUNDLE_INFO("normal stop %s...", name);
            return;
        }
        // After any signal, an item is relaunched unless its bundle was stopped.
        BUNDLE_INFO("relaunch %s...", name);
        Launch(info);
        BUNDLE_INFO("%s relaunch done.", name);
    });
}

void BundleProcessActivator::ExitStatusProc(int pid, int status)
{
    BUNDLE_INFO("entering exit status proc....");
    ProcessInfo info = InfoOf(pid);
    const char* const name = info.processName.c_str();
    // The marks of Stop do not matter here, because a child that Stop has killed dies of the signal. A child that has
    // exited just before is relaunched.
    if (CallsForRelaunch(status)) {
        BUNDLE_INFO("%s[%d] exit status [%d] need relaunch and now %s is relaunching ...", name, pid, status, name);
        RetryOnBadAlloc(pid, [&] { Launch(info); });
        BUNDLE_INFO("%s relaunch done.", name);
    } else {
        BUNDLE_INFO("%s[%d] does not need relaunch with exit status [%d].", name, pid, status);
    }
    BUNDLE_INFO("leaving exit status proc....");
}

bool BundleProcessActivator::ForgetDeadAndTellWhetherLast()
{
    const int pid = std::exchange(m_death, Death{}).pid;
    const std::lock_guard<std::mutex> forks(m_forkMutex);
    const std::lock_guard<std::mutex> table(m_pidMapMutex);
    if (m_launches.IsUnreaped(pid)) {
        BUNDLE_INFO("process[%d] is a new child by now.", pid);
        return false;
    }
    m_launches.Remove(pid);
    if (m_pidMap.erase(pid) == 0) {
        BUNDLE_ERROR("exit pid[%d] not found.", pid);
        return false;
    }
    if (!m_pidMap.empty()) {
        return false;
    }
    BUNDLE_INFO("all child process exit, stop monitor thread.");
    m_isMonitorRunning = false;
    return true;
}

} // namespace SystemServer
