#ifndef BUNDLE_PROCESS_ACTIVATOR_H
#define BUNDLE_PROCESS_ACTIVATOR_H

#include "bundle_activator.h"
#include "launch_numbers.h"
#include "thread_annotations.h"

#include <sys/types.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace SystemServer {

class ChildWait;
class ItemLaunch;

/// Runs a bundle's items as child processes of the server, all of them in the server's process group. The first launch
/// starts the one monitor thread. It reaps the children and relaunches them if their exit status or signal requires it.
/// All activators share the tables. These are never destroyed, because the detached monitor uses them until the process
/// ends. Locks, in the order in which they may nest: m_ignorePidSetMutex, m_forkMutex, m_pidMapMutex.
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

    /// The loader program's file name, and its default directory. The configuration can name another directory.
    static const std::string& DYN_LIB_PROCESS_LOADER;
    static const std::string& DEFAULT_PATH_TO_LOADER;

    /// Starts nothing.
    explicit BundleProcessActivator(std::shared_ptr<Bundle> bundle);
    /// Stops nothing: the children keep running under the monitor.
    ~BundleProcessActivator() override;

    /// Launches the items in the manifest's order, which takes at least a second each.
    /// @throws Poco::InvalidArgumentException as Launch
    void Start() override;

    /// Kills the bundle's children and marks them, so that the monitor does not relaunch them. Does not wait for their
    /// end and keeps them in the table: the monitor reaps them and removes their records.
    /// @throws Poco::InvalidArgumentException a child cannot be killed, for example because the monitor has reaped it
    /// and is relaunching it; the children after it stay as they are
    void Stop() override EXCLUDES(m_ignorePidSetMutex, m_forkMutex, m_pidMapMutex);

    /// Creates one child, records it, lets it become the item, and pauses for a second. Any thread.
    /// @throws Poco::InvalidArgumentException the pipe, the process or the monitor thread cannot be created; no child
    /// remains
    static void Launch(ProcessInfo& info) EXCLUDES(m_forkMutex, m_pidMapMutex);

protected:
    /// The monitor's thread. Ends when the last child is gone. Also ends when a wait fails; the flag then stays set, so
    /// no other monitor starts. A relaunch that cannot fork throws out of this function and ends the server. The
    /// server's own supervisor then starts it again.
    static void Monitor();

    /// Relaunches a child if its exit status requires it. Called on the monitor's thread only.
    static void ExitStatusProc(int pid, int status);

    /// Handles a child's death according to its wait status. Called on the monitor's thread only.
    static void HandleExit(int pid, int status);

    /// Every child whose end has not been handled yet, by pid.
    static std::map<int, ProcessInfo>& m_pidMap GUARDED_BY(m_pidMapMutex);
    static std::mutex m_pidMapMutex;
    /// Killed by Stop and not reaped yet: their death leads to no relaunch.
    static std::set<int>& m_ignorePidSet GUARDED_BY(m_ignorePidSetMutex);
    static std::mutex m_ignorePidSetMutex ACQUIRED_BEFORE(m_forkMutex, m_pidMapMutex);
    /// Set under m_pidMapMutex, read on any thread.
    static std::atomic<bool> m_isMonitorRunning;
    /// Held from a child's fork until its record is in m_pidMap, and while a child is reaped or killed. So a pid in the
    /// tables always means the process that has this pid.
    static std::mutex m_forkMutex ACQUIRED_BEFORE(m_pidMapMutex);

private:
    struct LaunchedChild {
        int pid;
        unsigned long launch; ///< its number
    };
    /// A child that has been reaped, with its former record.
    struct Death {
        int pid = 0;
        int status = 0;
        bool isItem = false;
        bool isStopped = false; ///< killed by Stop
        ProcessInfo info;
    };
    struct WaitTarget;
    class Child;

    static std::vector<LaunchedChild> FindChildren(const std::string& bundleName) EXCLUDES(m_forkMutex, m_pidMapMutex);
    static bool KillAndMark(const LaunchedChild& child) REQUIRES(m_ignorePidSetMutex) EXCLUDES(m_forkMutex);

    static int ForkAndRecord(const ProcessInfo& info, ItemLaunch& launch) EXCLUDES(m_forkMutex, m_pidMapMutex);
    static void JoinServerGroup(int pid) REQUIRES(m_forkMutex, m_pidMapMutex);
    static pid_t GroupOf(int pid) REQUIRES(m_forkMutex);
    static void EnsureMonitorRuns(const ProcessInfo& info) REQUIRES(m_pidMapMutex);

    static WaitTarget ChooseWaitTarget() EXCLUDES(m_forkMutex, m_pidMapMutex);
    static std::vector<int> KnownPids() EXCLUDES(m_pidMapMutex);
    static bool ReapNext(ChildWait& deaths, pid_t group);
    static int Reap(int pid) EXCLUDES(m_ignorePidSetMutex, m_forkMutex, m_pidMapMutex);
    static ProcessInfo InfoOf(int pid) EXCLUDES(m_pidMapMutex);
    static void HandleSignal(int pid, int signal) EXCLUDES(m_ignorePidSetMutex, m_forkMutex, m_pidMapMutex);
    static bool ForgetDeadAndTellWhetherLast() EXCLUDES(m_forkMutex, m_pidMapMutex);

    /// The launches of the children in m_pidMap.
    static LaunchNumbers& m_launches GUARDED_BY(m_forkMutex);
    /// The child whose end is being handled. Its pid in m_pidMap may already belong to another launch. Used on the
    /// monitor's thread only.
    static Death& m_death;
};

} // namespace SystemServer

#endif
