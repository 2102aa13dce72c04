#include "bundle_process_activator.h"

#include "bundle_log.h"
#include "item_kind.h"
#include "item_launch.h"
#include "termination_signals.h"

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/Util/Application.h>
#include <Poco/Util/LayeredConfiguration.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace SystemServer {

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
std::mutex BundleProcessActivator::m_forkMutex;
LaunchNumbers& BundleProcessActivator::m_launches = *new LaunchNumbers;

namespace {

// The configuration is read at the first launch of a library and then kept. A manager's thread makes that launch while
// the application lives. The monitor relaunches until the process ends, also after the application is destroyed.
std::string LoaderPath()
{
    using Configuration = Poco::AutoPtr<Poco::Util::LayeredConfiguration>;
    static const Configuration& config = *new Configuration(&Poco::Util::Application::instance().config(), true);
    return config->getString("global.server_submodule_dir", BundleProcessActivator::DEFAULT_PATH_TO_LOADER) + "/" +
           BundleProcessActivator::DYN_LIB_PROCESS_LOADER;
}

} // namespace

/// A forked child that has not been released yet. Unless it is kept, the destructor removes its process and its record.
/// Made and destroyed under m_forkMutex.
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
    void Discard() const REQUIRES(m_forkMutex) EXCLUDES(m_pidMapMutex)
    {
        {
            const std::lock_guard<std::mutex> table(m_pidMapMutex);
            m_pidMap.erase(pid);
        }
        m_launches.Remove(pid);
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
    for (const BundleManifest::LoadItem& item : manifest->GetLoadItems()) {
        const std::string& bundleName = manifest->GetBundleName();
        ProcessInfo info{bundleName, bundleName + "." + item.itemName, m_bundle->ItemPath(item.itemName), item.itemName,
                         item.entryFunc};
        Launch(info);
    }
}

void BundleProcessActivator::Stop()
{
    const std::string bundleName = m_bundle->GetManifest()->GetBundleName();
    const std::vector<LaunchedChild> children = FindChildren(bundleName);
    if (children.empty()) {
        BUNDLE_ERROR("bundle process already exit.");
        return;
    }
    // Held from the first kill to the last mark. The monitor reaps under the same mutex, so it sees the mark of every
    // child that was killed here.
    const std::lock_guard<std::mutex> marks(m_ignorePidSetMutex);
    for (const LaunchedChild& child : children) {
        if (!KillAndMark(child)) {
            throw Poco::InvalidArgumentException("bundle[" + bundleName + "] activator stop :kill process[" +
                                                 std::to_string(child.pid) + "] fail.");
        }
    }
}

std::vector<BundleProcessActivator::LaunchedChild> BundleProcessActivator::FindChildren(const std::string& bundleName)
{
    const std::lock_guard<std::mutex> forks(m_forkMutex);
    const std::lock_guard<std::mutex> table(m_pidMapMutex);
    std::vector<LaunchedChild> children;
    for (const auto& [pid, info] : m_pidMap) {
        if (info.bundleName == bundleName) {
            BUNDLE_INFO("bundle[%s] item[%s] pid[%d]", bundleName.c_str(), info.itemName.c_str(), pid);
            children.push_back({pid, m_launches.NumberOf(pid)});
        }
    }
    return children;
}

// A child that was reaped after it was found must not be killed: its pid is free, or another process has it.
bool BundleProcessActivator::KillAndMark(const LaunchedChild& child)
{
    const auto [mark, isNew] = m_ignorePidSet.insert(child.pid); // needs memory, so it comes before the kill
    const std::lock_guard<std::mutex> forks(m_forkMutex);
    const bool isStillItself = m_launches.NumberOf(child.pid) == child.launch && !m_launches.IsReaped(child.pid);
    if (isStillItself && kill(child.pid, SIGKILL) == 0) {
        return true;
    }
    if (isNew) {
        m_ignorePidSet.erase(mark);
    }
    return false;
}

int BundleProcessActivator::ForkAndRecord(const ProcessInfo& info, ItemLaunch& launch)
{
    const std::lock_guard<std::mutex> forks(m_forkMutex);
    Child child(launch.Fork());
    const std::lock_guard<std::mutex> table(m_pidMapMutex); // never held across a write or a sleep
    m_pidMap[child.pid] = info;
    m_launches.Add(child.pid);
    JoinServerGroup(child.pid);
    EnsureMonitorRuns(info);
    child.Keep();
    return child.pid;
}

void BundleProcessActivator::Launch(ProcessInfo& info)
{
    const ItemKind kind = KindOf(info.itemName);
    const std::string loaderPath = kind == ItemKind::LIBRARY ? LoaderPath() : "";
    const ItemCommand command{info.processName,       info.execPath, info.itemName, info.entryFunc,
                              DYN_LIB_PROCESS_LOADER, loaderPath,    kind};
    ItemLaunch launch(command);
    launch.Release(ForkAndRecord(info, launch));
    std::this_thread::sleep_for(std::chrono::seconds(1));
}

// Reads the lowest pid's group before the new child moves. For the first child that is the server's own group. Every
// later child joins that group, so the monitor can wait for a single group. A dead child that is being relaunched may
// have the lowest pid and has no group any more. The new child then stays in the group in which it was forked, which is
// the same.
void BundleProcessActivator::JoinServerGroup(int pid)
{
    const pid_t group = m_pidMap.empty() ? 0 : GroupOf(m_pidMap.begin()->first);
    if (setpgid(pid, group) == -1) {
        // The record has always shown 0 in place of the group.
        BUNDLE_ERROR("setpgid pid %d to pgid %d failed errno %s ", pid, 0, std::strerror(errno));
    }
}

// Does not read the group of a child that has been reaped: its pid may now belong to a process in another group.
pid_t BundleProcessActivator::GroupOf(int pid)
{
    return m_launches.IsReaped(pid) ? -1 : getpgid(pid);
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

} // namespace SystemServer
