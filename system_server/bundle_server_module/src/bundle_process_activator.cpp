#include "bundle_process_activator.h"

#include "bundle_log.h"
#include "child_process.h"
#include "common/unique_fd.h"
#include "item_kind.h"

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/Util/Application.h>
#include <Poco/Util/LayeredConfiguration.h>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <new>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace SystemServer {

using Common::UniqueFd;
using ProcessInfo = BundleProcessActivator::ProcessInfo;

static_assert(std::is_trivially_destructible<std::mutex>::value,
              "the monitor uses its locks until the process is gone");

const std::string& BundleProcessActivator::DYN_LIB_PROCESS_LOADER = *new std::string("dyn_lib_process_loader");
const std::string& BundleProcessActivator::DEFAULT_PATH_TO_LOADER = *new std::string("/usr/app/bin/");
std::map<int, ProcessInfo>& BundleProcessActivator::m_pidMap = *new std::map<int, ProcessInfo>;
std::mutex BundleProcessActivator::m_pidMapMutex;
std::set<int>& BundleProcessActivator::m_ignorePidSet = *new std::set<int>;
std::mutex BundleProcessActivator::m_ignorePidSetMutex;
std::atomic<bool> BundleProcessActivator::m_isMonitorRunning{false};
std::mutex BundleProcessActivator::m_birthMutex;

namespace {

constexpr char READY_CHAR = 'o';
constexpr int EXEC_FAILED_STATUS = 1;

/// The exit codes by which a program asks to be run again; any other, 0 and 1 included, lets it rest.
constexpr std::array<int, 9> RELAUNCH_STATUSES{2, 6, 7, 8, 10, 11, 15, 31, 255};

bool CallsForRelaunch(int status)
{
    return std::find(RELAUNCH_STATUSES.begin(), RELAUNCH_STATUSES.end(), status) != RELAUNCH_STATUSES.end();
}

// Between failed attempts on the pipe: what fails once in a while is tried again soon, what fails for ever does not
// fill the disk with its records.
void PauseAfterFailure()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

// For what the monitor does about a dead child: nobody else would do it, so it is tried until it can be done.
template <class Step> auto WhenThereIsMemory(int pid, const Step& step)
{
    for (;;) {
        try {
            return step();
        } catch (const std::bad_alloc&) {
            BUNDLE_ERROR("out of memory at the end of process[%d], trying again.", pid);
            std::this_thread::sleep_for(std::chrono::seconds(1));
        }
    }
}

// The configuration is taken at the first launch of a library, which a manager's thread makes while the application
// lives, and then kept: the monitor relaunches until the process is gone, when the application no longer is.
std::string LoaderPath()
{
    using Configuration = Poco::AutoPtr<Poco::Util::LayeredConfiguration>;
    static const Configuration& config = *new Configuration(&Poco::Util::Application::instance().config(), true);
    return config->getString("global.server_submodule_dir", BundleProcessActivator::DEFAULT_PATH_TO_LOADER) + "/" +
           BundleProcessActivator::DYN_LIB_PROCESS_LOADER;
}

/// What the child needs, made before the fork: after it, neither the heap nor a lock may be touched.
struct ItemCommand {
    explicit ItemCommand(const ProcessInfo& item)
        : info(item), kind(KindOf(item.itemName)), loaderPath(kind == ItemKind::LIBRARY ? LoaderPath() : "")
    {}
    const ProcessInfo& info;
    const ItemKind kind;
    const std::string loaderPath;
};

/// The pipe over which a child is told that it has been recorded. Both ends vanish with an exec, of this child or of
/// one that another thread forks meanwhile.
struct ReadyPipe {
    UniqueFd readEnd;
    UniqueFd writeEnd;
};

ReadyPipe OpenReadyPipe(const ProcessInfo& info)
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) == -1) {
        throw Poco::InvalidArgumentException("process[" + info.processName + "] pipe fail.");
    }
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

// In the child. Waits as long as it takes, but not for a server that is gone: nobody would ever say the word.
void AwaitReady(int readEnd, pid_t server)
{
    BUNDLE_INFO("wait for parent process ready...");
    char readyChar = 0;
    while (readyChar != READY_CHAR) {
        if (read(readEnd, &readyChar, 1) != 1) {
            readyChar = 0;
            BUNDLE_ERROR("read pipe fail.");
            if (getppid() != server) {
                _exit(EXEC_FAILED_STATUS);
            }
            PauseAfterFailure();
        } else if (readyChar != READY_CHAR) {
            BUNDLE_ERROR("read readyChar fail.required[o] actual[%c].", readyChar);
        }
    }
    BUNDLE_INFO("wait for parent process ready done pgid is [%d].", getpgrp());
}

// In the child. Returns, with errno set, only when the program cannot be executed. The signal's disposition is the
// item's for the exec alone: a record that the limit on file sizes refuses would kill the child.
template <class... Arguments> void Exec(const char* path, Arguments... arguments)
{
    RestoreFileSizeSignal();
    execl(path, arguments..., nullptr);
    IgnoreFileSizeSignal();
}

// In the child. Returns only when the item cannot be executed.
void ExecItem(const ItemCommand& command)
{
    const char* const execPath = command.info.execPath.c_str();
    const char* const itemName = command.info.itemName.c_str();
    const char* const entryFunc = command.info.entryFunc.c_str();
    const char* const loaderPath = command.loaderPath.c_str();
    const char* const loader = BundleProcessActivator::DYN_LIB_PROCESS_LOADER.c_str();
    switch (command.kind) {
    case ItemKind::LIBRARY:
        BUNDLE_INFO("load dyn lib[%s].excute command:{%s -f %s -e %s}", loaderPath, loader, execPath, entryFunc);
        Exec(loaderPath, loader, "-f", execPath, "-e", entryFunc);
        break;
    case ItemKind::SCRIPT:
        BUNDLE_INFO("execute shell script[%s].excute command:{sh %s}", execPath, execPath);
        Exec("/bin/sh", "sh", execPath);
        break;
    case ItemKind::BINARY:
        BUNDLE_INFO("execute binary[%s].excute command:{%s}", execPath, itemName);
        Exec(execPath, itemName);
        break;
    case ItemKind::TOO_SHORT:
        std::abort(); // a name too short to have an ending: the monitor shall see that this was no ordinary end
    }
}

// The child's whole life between fork and exec. It never returns into the copy of the server around it.
[[noreturn]] void BecomeItem(const ItemCommand& command, ReadyPipe& ready, pid_t server)
{
    ready.writeEnd.Reset();
    AwaitReady(ready.readEnd.Get(), server);
    ready.readEnd.Reset();
    RestoreDescriptorLimit();
    ExecItem(command);
    BUNDLE_ERROR("execl fail.errno[%d].", errno);
    _exit(EXEC_FAILED_STATUS);
}

pid_t ForkItem(const ItemCommand& command, ReadyPipe& ready)
{
    const pid_t server = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        BecomeItem(command, ready, server);
    }
    if (pid == -1) {
        throw Poco::InvalidArgumentException("process[" + command.info.processName + "] fork fail.");
    }
    return pid;
}

// The pipe's read end is still open here as well, so that a child which has died meanwhile makes this an ordinary write
// to nobody: it is the monitor that finds out.
void ReleaseChild(pid_t pid, ReadyPipe& ready)
{
    BUNDLE_INFO("parent process ready.notify child process[%d]...", pid);
    while (write(ready.writeEnd.Get(), &READY_CHAR, 1) != 1) {
        BUNDLE_ERROR("write pipe fail.");
        PauseAfterFailure();
    }
    BUNDLE_INFO("notify child process[%d] done.", pid);
    ready.writeEnd.Reset();
    ready.readEnd.Reset();
}

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

/// Which children the monitor waits for.
struct BundleProcessActivator::WaitTarget {
    pid_t shown; ///< the group as it is logged: 0 stands for the server's own
    pid_t group;
};

/// A forked child that still waits for its word. Unless it is kept, nothing is left of it: no process, no record.
class BundleProcessActivator::Child {
public:
    explicit Child(int child) : pid(child) {}
    ~Child() EXCLUDES(m_pidMapMutex)
    {
        if (!m_kept) {
            Discard();
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void Keep() { m_kept = true; }

    const int pid;

private:
    void Discard() const EXCLUDES(m_pidMapMutex)
    {
        {
            const std::lock_guard<std::mutex> table(m_pidMapMutex);
            m_pidMap.erase(pid);
        }
        kill(pid, SIGKILL);
        while (waitpid(pid, nullptr, 0) == -1 && errno == EINTR) {
        }
    }

    bool m_kept = false;
};

BundleProcessActivator::BundleProcessActivator(std::shared_ptr<Bundle> bundle) : BundleActivator(std::move(bundle)) {}

BundleProcessActivator::~BundleProcessActivator() = default;

void BundleProcessActivator::Start()
{
    const std::shared_ptr<BundleManifest> manifest = m_bundle->GetManifest();
    const std::string binDir = m_bundle->GetStorage()->GetRootPath() + "/" + Bundle::BUNDLE_BIN_FILE_PATH;
    for (const BundleManifest::LoadItem& item : manifest->GetLoadItems()) {
        const std::string& bundleName = manifest->GetBundleName();
        ProcessInfo info{bundleName, bundleName + "." + item.itemName, binDir + item.itemName, item.itemName,
                         item.entryFunc};
        Launch(info);
    }
}

void BundleProcessActivator::Stop()
{
    const std::string bundleName = m_bundle->GetManifest()->GetBundleName();
    std::vector<int> pids;
    {
        const std::lock_guard<std::mutex> table(m_pidMapMutex);
        for (const auto& [pid, info] : m_pidMap) {
            if (info.bundleName == bundleName) {
                BUNDLE_INFO("bundle[%s] item[%s] pid[%d]", bundleName.c_str(), info.itemName.c_str(), pid);
                pids.push_back(pid);
            }
        }
    }
    if (pids.empty()) {
        BUNDLE_ERROR("bundle process already exit.");
        return;
    }
    // From the first kill to the last mark: the monitor, which judges a signalled death under the same mutex, finds
    // every child that was killed here marked.
    const std::lock_guard<std::mutex> marks(m_ignorePidSetMutex);
    for (const int pid : pids) {
        const auto [mark, isNew] = m_ignorePidSet.insert(pid); // needs memory, so before the kill that it belongs to
        if (kill(pid, SIGKILL) == -1) {
            if (isNew) {
                m_ignorePidSet.erase(mark);
            }
            throw Poco::InvalidArgumentException("bundle[" + bundleName + "] activator stop :kill process[" +
                                                 std::to_string(pid) + "] fail.");
        }
    }
}

template <class Fork> int BundleProcessActivator::BearChild(const ProcessInfo& info, const Fork& fork)
{
    const std::lock_guard<std::mutex> birth(m_birthMutex);
    Child child(fork());
    const std::lock_guard<std::mutex> table(m_pidMapMutex); // never held across a write or a sleep
    m_pidMap[child.pid] = info;
    JoinServerGroup(child.pid);
    EnsureMonitorRuns(info);
    child.Keep();
    return child.pid;
}

void BundleProcessActivator::Launch(ProcessInfo& info)
{
    const ItemCommand command(info);
    ReadyPipe ready = OpenReadyPipe(info);
    const int pid = BearChild(info, [&] { return ForkItem(command, ready); });
    ReleaseChild(pid, ready);
    std::this_thread::sleep_for(std::chrono::seconds(1));
}

// The lowest pid's group is asked for before the new child is moved: for the first child that is still the server's own
// group, so every later one is led into it, and the monitor can wait for that single group. When the lowest pid is the
// dead child that is being relaunched, there is no group to be had; the new child then stays in the one it was born in,
// which is the same.
void BundleProcessActivator::JoinServerGroup(int pid)
{
    const pid_t group = m_pidMap.empty() ? 0 : getpgid(m_pidMap.begin()->first);
    if (setpgid(pid, group) == -1) {
        // The record shows 0 in place of the group, as it always has.
        BUNDLE_ERROR("setpgid pid %d to pgid %d failed errno %s ", pid, 0, std::strerror(errno));
    }
}

void BundleProcessActivator::EnsureMonitorRuns(const ProcessInfo& info)
{
    if (m_isMonitorRunning) {
        return;
    }
    BUNDLE_INFO("child process create, start monitor thread.");
    m_isMonitorRunning = true;
    try {
        const TerminationSignalsBlocked blocked;
        std::thread(Monitor).detach();
    } catch (const std::system_error& e) {
        m_isMonitorRunning = false;
        throw Poco::InvalidArgumentException("process[" + info.processName + "] monitor thread fail: " + e.what());
    } catch (...) {
        m_isMonitorRunning = false;
        throw;
    }
}

void BundleProcessActivator::Monitor()
{
    prctl(PR_SET_NAME, "bundle_monitor");
    std::list<int> round; // a list, for an empty one needs no memory
    while (m_isMonitorRunning) {
        const WaitTarget target = ChooseWaitTarget();
        int status = 0;
        const int pid = WaitForDeath(target.group, round, status);
        const int error = errno;
        BUNDLE_INFO("BundleProcessActivator monitor pgid [%d] ", target.shown);
        if (pid == -1) {
            BUNDLE_ERROR("waitpid fail, errno is %d.", error);
            return; // the flag stays set: from now on nothing is supervised, which only a restart of the server mends
        }
        if (!IsBundleProcess(pid)) {
            BUNDLE_INFO("non-bundle process[%d] exit.", pid);
            continue;
        }
        JudgeEnd(pid, status);
        DropIgnoreMark(pid);
        if (ForgetAndTellWhetherLast(pid)) {
            return; // not by way of the flag, which a launch may have set again for a monitor of its own
        }
    }
}

BundleProcessActivator::WaitTarget BundleProcessActivator::ChooseWaitTarget()
{
    const std::lock_guard<std::mutex> table(m_pidMapMutex);
    if (m_pidMap.empty()) {
        return {0, getpgrp()};
    }
    const int lowest = m_pidMap.begin()->first;
    const pid_t group = getpgid(lowest);
    if (group == -1) {
        BUNDLE_INFO("Failed to get pgid of [%d] ", lowest);
        return {0, getpgrp()};
    }
    return {group, group};
}

// Deaths are taken in rounds: all that are there at one moment before any later one. Left to itself the kernel answers
// with the waiting thread's own children first, which are those that the monitor has relaunched, so that one item which
// ends at once each time would keep every other from being seen.
// Returns the pid, reaped, or -1 with errno set when the wait has failed.
int BundleProcessActivator::WaitForDeath(pid_t group, std::list<int>& round, int& status)
{
    int lost = 0;
    for (;;) {
        if (round.empty()) {
            siginfo_t info{};
            if (WaitId(P_PGID, group, info, WEXITED | WNOWAIT) == -1) {
                return -1;
            }
            round = WhenThereIsMemory(info.si_pid, [&] { return FindDead(group, info.si_pid); });
        }
        const int pid = round.front();
        round.pop_front();
        if (waitpid(pid, &status, WNOHANG) == pid) {
            return pid;
        }
        // Somebody else in this process has taken it, a library's own wait perhaps; twice the same is a failed wait.
        if (errno != ECHILD || pid == lost) {
            return -1;
        }
        lost = pid;
    }
}

// All dead children of the group. The peeked one is among them, though it may be nobody's item.
std::list<int> BundleProcessActivator::FindDead(pid_t group, int peeked)
{
    std::vector<int> known;
    {
        const std::lock_guard<std::mutex> birth(m_birthMutex);
        const std::lock_guard<std::mutex> table(m_pidMapMutex);
        known.reserve(m_pidMap.size());
        for (const auto& entry : m_pidMap) {
            known.push_back(entry.first);
        }
    }
    std::list<int> dead{peeked};
    for (const int pid : known) {
        if (pid != peeked && IsDeadIn(group, pid)) {
            dead.push_back(pid);
        }
    }
    return dead;
}

bool BundleProcessActivator::IsBundleProcess(int pid)
{
    const std::lock_guard<std::mutex> table(m_pidMapMutex);
    return m_pidMap.find(pid) != m_pidMap.end();
}

ProcessInfo BundleProcessActivator::CopyInfo(int pid)
{
    return WhenThereIsMemory(pid, [pid] {
        const std::lock_guard<std::mutex> table(m_pidMapMutex);
        return m_pidMap[pid];
    });
}

void BundleProcessActivator::JudgeEnd(int pid, int status)
{
    const ProcessInfo info = CopyInfo(pid);
    const char* const name = info.processName.c_str();
    if (WIFEXITED(status)) {
        BUNDLE_INFO("%s[%d] normal termination, exit status: %d.", name, pid, WEXITSTATUS(status));
        ExitStatusProc(pid, WEXITSTATUS(status));
    } else if (WIFSIGNALED(status)) {
        JudgeSignal(pid, WTERMSIG(status));
    } else if (WIFSTOPPED(status)) {
        BUNDLE_INFO("%s[%d] stopped, signal: %d.", name, pid, WSTOPSIG(status));
    }
}

void BundleProcessActivator::JudgeSignal(int pid, int signal)
{
    ProcessInfo info = CopyInfo(pid);
    const char* const name = info.processName.c_str();
    BUNDLE_INFO("%s[%d] abnormal termination, signal: %d.", name, pid, signal);
    ZQ_WriteLanguageLog(LANGUAGE_LOG_MODULE, LOG_LEVEL_ERROR, "%s[%d] abnormal termination, signal: %d.",
                        "%s[%d] 异常终止, 信号: %d.", name, pid, signal);
    WhenThereIsMemory(pid, [&] {
        const std::lock_guard<std::mutex> marks(m_ignorePidSetMutex);
        if (m_ignorePidSet.erase(pid) != 0) {
            BUNDLE_INFO("normal stop %s...", name);
            return;
        }
        // Whatever the signal: who wants an item to rest stops its bundle.
        BUNDLE_INFO("relaunch %s...", name);
        Launch(info);
        BUNDLE_INFO("%s relaunch done.", name);
    });
}

void BundleProcessActivator::ExitStatusProc(int pid, int status)
{
    BUNDLE_INFO("entering exit status proc....");
    ProcessInfo info = CopyInfo(pid);
    const char* const name = info.processName.c_str();
    // The marks of Stop are not asked: a child that Stop has killed dies of the signal and is judged there. One that
    // has exited just before asks for its relaunch and gets it.
    if (CallsForRelaunch(status)) {
        BUNDLE_INFO("%s[%d] exit status [%d] need relaunch and now %s is relaunching ...", name, pid, status, name);
        WhenThereIsMemory(pid, [&] { Launch(info); });
        BUNDLE_INFO("%s relaunch done.", name);
    } else {
        BUNDLE_INFO("%s[%d] does not need relaunch with exit status [%d].", name, pid, status);
    }
    BUNDLE_INFO("leaving exit status proc....");
}

// A mark must not outlive its process: the number comes back as another's.
void BundleProcessActivator::DropIgnoreMark(int pid)
{
    const std::lock_guard<std::mutex> marks(m_ignorePidSetMutex);
    m_ignorePidSet.erase(pid);
}

bool BundleProcessActivator::ForgetAndTellWhetherLast(int pid)
{
    const std::lock_guard<std::mutex> table(m_pidMapMutex);
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
