#include "system/hostile_bundles/hostile_bundle.h"

#include "support/slowness.h"

#include <sys/prctl.h>

#include <linux/capability.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <system_error>
#include <utility>

namespace {

namespace fs = std::filesystem;

constexpr const char MONITOR[] = "bundle_monitor";

/// The number of threads that have the program's name: the main one, and those of the thread sanitizer or the emulator.
#ifdef __SANITIZE_THREAD__
constexpr int NAMELESS_THREADS = 2;
#else
constexpr int NAMELESS_THREADS = SLOWNESS == 1 ? 1 : 2;
#endif

pid_t ProcessNumber(const fs::path& entry)
{
    return static_cast<pid_t>(std::strtol(entry.filename().c_str(), nullptr, 10));
}

} // namespace

HostileBundles::HostileBundles()
{
    daemon.SetEnvironment("LD_PRELOAD", TEST_HURRY);
    daemon.SetEnvironment("ASAN_OPTIONS", "verify_asan_link_order=0"); // otherwise it insists on being loaded first
}

void HostileBundles::ReadAsOthersDo(DaemonRunner& runner)
{
    runner.SetPreparation([] {
        ::prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0);
        ::prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH, 0, 0, 0);
    });
}

testing::AssertionResult HostileBundles::StartServing()
{
    if (!daemon.StartServing()) {
        return testing::AssertionFailure() << "it does not serve";
    }
    // Each thread takes its name when it begins to run. By then the descriptors of the start-up are closed.
    const auto areAllOnTheirWay = [this] {
        const std::vector<std::string> names = daemon.ThreadNames();
        return std::count(names.begin(), names.end(), "bundle_server") == NAMELESS_THREADS &&
               std::count(names.begin(), names.end(), "bundle_watcher") == 1;
    };
    if (!Eventually(DaemonRunner::PATIENCE, areAllOnTheirWay)) {
        return testing::AssertionFailure() << "its threads are " << testing::PrintToString(daemon.ThreadNames());
    }
    // Some items are relaunched all the time. A descriptor that is there ten times in a row is not a pipe of a launch.
    int looksAlike = 0;
    const auto standsStill = [&] {
        const auto before = std::exchange(m_descriptors, daemon.Descriptors());
        looksAlike = m_descriptors == before ? looksAlike + 1 : 0;
        return looksAlike == 10;
    };
    if (!Eventually(DaemonRunner::PATIENCE, standsStill)) {
        return testing::AssertionFailure() << "it holds " << testing::PrintToString(m_descriptors);
    }
    m_threads = OtherThreads();
    return testing::AssertionSuccess();
}

testing::AssertionResult HostileBundles::IsUnharmed()
{
    const testing::AssertionResult result = TakesInAGoodBundle();
    return result ? HoldsWhatItHeld() : result;
}

testing::AssertionResult HostileBundles::TakesInAGoodBundle()
{
    const std::string name = "good" + std::to_string(++m_goodBundles);
    staging.Bundle(name).Copy("goodd", TEST_SLEEPER).Write();
    std::error_code otherFileSystem;
    fs::rename(staging / name, In(name), otherFileSystem);
    if (otherFileSystem) {
        fs::copy(staging / name, In(name), fs::copy_options::recursive);
    }
    if (!IsStarted(name)) {
        return testing::AssertionFailure() << "the next good bundle is not started";
    }
    const pid_t item = daemon.WaitForItem(name, "goodd");
    if (item == 0) {
        return testing::AssertionFailure() << "the item of the next good bundle does not run";
    }
    ::kill(item, SIGKILL);
    if (daemon.WaitForItem(name, "goodd", 2) == 0) {
        return testing::AssertionFailure() << "the item of the next good bundle is not run again";
    }
    // A stop during a relaunch is refused. The next attempt succeeds.
    if (!Eventually(DaemonRunner::PATIENCE, [&name] { return RequestDelete(name) == 200; })) {
        return testing::AssertionFailure() << "the next good bundle is not deleted";
    }
    return Exists(In(name)) ? testing::AssertionFailure() << "the directory of the next good bundle is not removed"
                            : testing::AssertionSuccess();
}

testing::AssertionResult HostileBundles::HoldsWhatItHeld() const
{
    // A scan holds a descriptor, a connection is closed a moment later, and dead children are reaped a moment later.
    if (!Eventually(DaemonRunner::PATIENCE, [this] { return daemon.Descriptors() == m_descriptors; })) {
        return testing::AssertionFailure() << "it held " << testing::PrintToString(m_descriptors) << " and holds "
                                           << testing::PrintToString(daemon.Descriptors());
    }
    if (!Eventually(DaemonRunner::PATIENCE, [this] { return OtherThreads() == m_threads; })) {
        return testing::AssertionFailure() << "its threads are " << testing::PrintToString(daemon.ThreadNames());
    }
    if (!Eventually(DaemonRunner::PATIENCE, [this] { return DeadChildren().empty(); })) {
        return testing::AssertionFailure() << "it does not reap " << testing::PrintToString(DeadChildren());
    }
    return testing::AssertionSuccess();
}

std::vector<std::string> HostileBundles::OtherThreads() const
{
    std::vector<std::string> names = daemon.ThreadNames();
    names.erase(std::remove(names.begin(), names.end(), MONITOR), names.end());
    std::sort(names.begin(), names.end());
    return names;
}

void HostileBundles::MoveAllIn() const
{
    for (const fs::directory_entry& entry : fs::directory_iterator(staging.Path())) {
        fs::rename(entry.path(), fs::path(collection.Path()) / entry.path().filename());
    }
}

testing::AssertionResult HostileBundles::IsStarted(const std::string& bundle, int times)
{
    if (daemon.WaitForLog("bundle[" + bundle + "] state changing[Starting] -> [Active]", times)) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << bundle << " is not started";
}

bool HostileBundles::IsFollowed(const std::string& record, const std::string& next)
{
    std::map<pid_t, std::string> last;
    for (const LogRecord& current : daemon.Log()) {
        std::string& before = last[current.thread];
        if (before == record && current.message == next) {
            return true;
        }
        before = current.message;
    }
    return false;
}

std::vector<pid_t> HostileBundles::DeadChildren() const
{
    std::vector<pid_t> dead;
    std::error_code error;
    for (fs::directory_iterator entry("/proc", error), end; !error && entry != end; entry.increment(error)) {
        const pid_t pid = ProcessNumber(entry->path());
        if (pid > 0 && ProcessOf::Status(pid, "PPid") == std::to_string(daemon.Pid()) && !ProcessOf::IsAlive(pid)) {
            dead.push_back(pid);
        }
    }
    return dead;
}
