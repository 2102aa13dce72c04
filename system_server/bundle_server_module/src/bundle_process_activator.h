#ifndef BUNDLE_PROCESS_ACTIVATOR_H
#define BUNDLE_PROCESS_ACTIVATOR_H

#include "bundle_activator.h"
#include "thread_annotations.h"

#include <sys/types.h>

#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace SystemServer {

/// Runs a bundle's items as child processes of the server, all of them in the server's process group. One monitor
/// thread, started by the first launch, reaps them and relaunches those whose end calls for it. The bookkeeping is
/// shared by all activators and never destroyed: the detached monitor uses it until the process is gone. Locks, in the
/// order in which they may nest: m_ignorePidSetMutex, m_birthMutex, m_pidMapMutex.
class BundleProcessActivator : public BundleActivator {
public:
    /// One launched item.
    struct ProcessInfo {
        std::string bundleName;
        std::string processName; ///< bundle name, point, item name: for messages
        std::string execPath;
        std::string itemName;  ///< its ending decides how the item is run
        std::string entryFunc; ///< for ".so" items
    };

    static const std::string& DYN_LIB_PROCESS_LOADER;
    static const std::string& DEFAULT_PATH_TO_LOADER;

    explicit BundleProcessActivator(std::shared_ptr<Bundle> bundle);
    ~BundleProcessActivator() override;

    /// Launches the items in manifest order, which takes at least a second each.
    /// @throws Poco::InvalidArgumentException as Launch
    void Start() override;

    /// Kills the bundle's children and marks them, so that the monitor lets them rest. Neither waits for their end nor
    /// forgets them: both are the monitor's.
    /// @throws Poco::InvalidArgumentException a child cannot be killed, as one that has been reaped and is being
    /// relaunched this second; the children after it are left as they are
    void Stop() override EXCLUDES(m_ignorePidSetMutex, m_pidMapMutex);

    /// Creates one child, records it, lets it become the item, and pauses for a second. Any thread.
    /// @throws Poco::InvalidArgumentException no pipe, no process or no monitor thread; nothing is left of the child
    static void Launch(ProcessInfo& info) EXCLUDES(m_birthMutex, m_pidMapMutex);

protected:
    /// The monitor's thread. Ends when the last child is gone, or for good, with the flag left set, when a wait fails.
    /// A relaunch that cannot fork throws out of it and ends the server, which its own supervisor then starts again.
    static void Monitor();

    /// Relaunches a child that has exited with a status that asks for it. The monitor's thread only.
    static void ExitStatusProc(int pid, int status);

    /// Judges one death by its wait status. The monitor's thread only.
    static void JudgeEnd(int pid, int status);

    /// Every child not yet reaped and judged, by pid.
    static std::map<int, ProcessInfo>& m_pidMap GUARDED_BY(m_pidMapMutex);
    static std::mutex m_pidMapMutex;
    /// Killed by Stop: their death is no reason for a relaunch.
    static std::set<int>& m_ignorePidSet GUARDED_BY(m_ignorePidSetMutex);
    static std::mutex m_ignorePidSetMutex ACQUIRED_BEFORE(m_birthMutex, m_pidMapMutex);
    /// Set under m_pidMapMutex, read on any thread.
    static std::atomic<bool> m_isMonitorRunning;
    /// Held from a child's fork until it is in m_pidMap: the monitor asks under it whose a dead pid was.
    static std::mutex m_birthMutex ACQUIRED_BEFORE(m_pidMapMutex);

private:
    struct WaitTarget;
    class Child;

    template <class Fork> static int BearChild(const ProcessInfo& info, const Fork& fork);
    static void JoinServerGroup(int pid) REQUIRES(m_pidMapMutex);
    static void EnsureMonitorRuns(const ProcessInfo& info) REQUIRES(m_pidMapMutex);

    static WaitTarget ChooseWaitTarget();
    static int WaitForDeath(pid_t group, std::list<int>& round, int& status);
    static std::list<int> FindDead(pid_t group, int peeked);
    static bool IsBundleProcess(int pid);
    static ProcessInfo CopyInfo(int pid);
    static void JudgeSignal(int pid, int signal);
    static void DropIgnoreMark(int pid);
    static bool ForgetAndTellWhetherLast(int pid);
};

} // namespace SystemServer

#endif
