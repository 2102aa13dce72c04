#include "bundle_dir_watcher.h"
#include "bundle_manager.h"
#include "bundle_thread_activator.h"
#include "inherited_state.h"
#include "support/eventually.h"
#include "support/fault.h"
#include "support/loaded_paths.h"
#include "support/own_process.h"
#include "unit/processes/running_items.h"

#include <Poco/Delegate.h>
#include <Poco/Exception.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <tuple>
#include <vector>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using SystemServer::Bundle;
using SystemServer::BundleDirWatcher;
using SystemServer::BundleManager;
using SystemServer::BundleStorageDir;
using SystemServer::BundleStorageDirFactory;

namespace {

class AFailingCallOfALaunch : public RunningItems {
public:
    /// Launches an item while the call fails. Returns whether it runs and no descriptor is left open.
    ::testing::AssertionResult Runs(Call call, int error, int count = Fault::ALWAYS)
    {
        const int descriptors = OwnProcess::Descriptors();
        ActivatorPtr activator;
        {
            const Fault fault(call, error, count);
            activator = Start(collection.Bundle("media").Item("mediad", Sleeper()));
            if (!fault.HasStruck()) {
                return ::testing::AssertionFailure() << "the call is not made";
            }
        }
        const int pid = PidOf("media.mediad");
        if (pid == 0 || ::kill(pid, 0) != 0 || OwnProcess::Descriptors() != descriptors) {
            return log.Has("the item is running and nothing is left open");
        }
        activator->Stop();
        return MonitorEnds() ? ::testing::AssertionSuccess()
                             : ::testing::AssertionFailure() << "the monitor still runs";
    }
};

class AFailingCallOfTheMonitor : public RunningItems {};

class AFailingCallOfAScript : public RunningItems {};

class AFailingCallOfAStorage : public RunningItems {};

/// A watcher whose creation or scan meets a failing call.
class AFailingCallOfTheWatcher : public RunningItems {
public:
    void OnEvent(const Poco::DirectoryWatcher::DirectoryEvent& /*event*/) { ++events; }

    void Watch()
    {
        watcher.emplace(collection.Path(), 5ms);
        watcher->itemAdded += Poco::delegate(this, &AFailingCallOfTheWatcher::OnEvent);
        watcher->itemRemoved += Poco::delegate(this, &AFailingCallOfTheWatcher::OnEvent);
        watcher->itemModified += Poco::delegate(this, &AFailingCallOfTheWatcher::OnEvent);
    }

    /// Adds an entry. Returns whether the watcher raises it.
    bool SeesWhatComes()
    {
        const int before = events;
        WriteFile(collection / ("file" + std::to_string(before)), "");
        return Eventually(PATIENCE, [&] { return events == before + 1; });
    }

    static int InheritableInotifyDescriptors()
    {
        int count = 0;
        for (int fd = 0; fd < 1024; ++fd) {
            std::error_code error;
            const int flags = ::fcntl(fd, F_GETFD);
            const auto target = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), error);
            count += flags != -1 && (flags & FD_CLOEXEC) == 0 && target == "anon_inode:inotify" ? 1 : 0;
        }
        return count;
    }

    /// Waits for scans while the call fails. Returns the number of events.
    int EventsWhile(Call call, int error)
    {
        const int before = events;
        {
            const Fault fault(call, error);
            const CallCounter calls(call);
            EXPECT_TRUE(Eventually(PATIENCE, [&] { return calls.Count() > 10; }));
        }
        return events - before;
    }

    std::optional<BundleDirWatcher> watcher;
    std::atomic<int> events{0};
};

class AFailingCallOfAnItemThread : public RunningItems {};
class AFailingCallForALimit : public RunningItems {};

} // namespace

TEST_F(AFailingCallOfALaunch, DoesNotKeepTheItemFromRunning)
{
    EXPECT_TRUE(Runs(Call::CLOSE, EIO)); // the descriptor is closed even though the call fails
    EXPECT_TRUE(Runs(Call::PRCTL, EPERM));
    EXPECT_TRUE(Runs(Call::GETPGID, ESRCH, 1));
    EXPECT_TRUE(log.HasPart(" to pgid 0 failed errno "));
}

TEST_F(AFailingCallOfALaunch, DoesNotShortenAPauseWhenASignalInterruptsIt)
{
    const auto before = Clock::now();
    EXPECT_TRUE(Runs(Call::NANOSLEEP, EINTR, 5));
    EXPECT_GE(Clock::now() - before, 1s);
}

TEST_F(AFailingCallOfALaunch, LeavesNoUnreapedChild)
{
    const auto activator = Make(collection.Bundle("media").Item("mediad", Sleeper()));
    const Fault thread(Call::START_THREAD, EAGAIN);
    const Fault wait(Call::WAITPID, EINTR, 3);
    EXPECT_THROW(activator->Start(), Poco::InvalidArgumentException);
    EXPECT_TRUE(wait.HasStruck());
    EXPECT_FALSE(OwnProcess::HasChildren());
}

TEST_F(AFailingCallOfTheMonitor, EndsItForGoodWhenReapingFails)
{
    Start(collection.Bundle("media").Item("mediad", ExitingAtTrigger(0)));
    {
        const Fault fault(Call::WAITPID, EINVAL, 1);
        PullTrigger();
        EXPECT_TRUE(IsLogged("waitpid fail, errno is 22."));
    }
    EXPECT_TRUE(log.HasError("waitpid fail, errno is 22."));
    EXPECT_TRUE(ProcessTable::IsMonitorRunning()) << "the monitor has ended";
    ProcessTable::EndAllWithoutMonitor();
}

TEST_F(AFailingCallOfAScript, RunsItWithoutANoticeOfItsFork)
{
    const std::string mark = outside / "mark";
    const Bundle bundle(std::make_shared<BundleStorageDir>(
        collection.Bundle("media").Install("#!/bin/sh\ntouch " + mark + "\n").Write()));
    {
        const Fault fault(Call::PIPE2, EMFILE);
        bundle.RunScript("install.sh");
        EXPECT_TRUE(fault.HasStruck());
    }
    EXPECT_TRUE(Exists(mark)) << "the script was not waited for";
    EXPECT_FALSE(OwnProcess::HasChildren());
}

TEST_F(AFailingCallOfAStorage, DoesNotRegisterABundleWithoutAStatus)
{
    const std::string path = collection.Bundle("media").Write();
    BundleManager manager(std::make_shared<BundleStorageDirFactory>());
    for (const int error : {EIO, EACCES}) {
        const Fault fault(Call::STAT, error,
                          2); // the framework then asks for the status of its directory and of its manifest
        EXPECT_THROW(manager.LoadBundle(path), Poco::FileNotFoundException);
    }
    EXPECT_TRUE(log.HasError("resource file[" + path + "/BundleManifest.ini] does not exist."));
    EXPECT_TRUE(LoadedIn(manager, collection.Path()).empty());
    EXPECT_TRUE(manager.LoadBundle(path));
}

TEST_F(AFailingCallOfAStorage, IsLoggedWhenAnEntryOfTheCollectionHasNoStatus)
{
    const std::string path = collection.Bundle("media").Write();
    std::string directory = collection.Path();
    WriteFile(collection / "note", "");
    BundleManager manager(std::make_shared<BundleStorageDirFactory>());
    {
        const Fault fault(Call::FSTATAT, EOVERFLOW);
        manager.LoadAllBundles(directory);
    }
    EXPECT_TRUE(log.HasError("[" + path +
                             "] can not be looked at: Value too large for defined data type. It counts as no "
                             "directory."));
    EXPECT_TRUE(LoadedIn(manager, collection.Path()).empty());
    log.Restart();
    std::filesystem::create_symlink("nowhere", collection / "dangling");
    manager.LoadAllBundles(directory);
    EXPECT_EQ(log.CountPart("can not be looked at"), 0);
    EXPECT_EQ(LoadedIn(manager, collection.Path()).size(), 1U);
}

TEST_F(AFailingCallOfAStorage, IsLoggedWhenAScriptHasNoStatus)
{
    const std::string mark = collection / "installed";
    const std::string path = collection.Bundle("media").Install("#!/bin/sh\ntouch " + mark + "\n").Write();
    const Bundle bundle(std::make_shared<BundleStorageDir>(path));
    {
        const Fault fault(Call::STAT, EIO);
        bundle.RunScript("install.sh");
    }
    EXPECT_TRUE(log.HasError("script[" + path +
                             "/./script/install.sh] can not be looked at: Input/output error. It is not "
                             "run."));
    EXPECT_FALSE(Exists(mark));
    log.Restart();
    bundle.RunScript("update.sh");
    EXPECT_EQ(log.CountPart("can not be looked at"), 0);
    bundle.RunScript("install.sh");
    EXPECT_TRUE(Exists(mark));
}

// Items may then inherit the framework's descriptor. The watcher works either way.
TEST_F(AFailingCallOfTheWatcher, DoesNotPreventItsCreation)
{
    const int descriptors = OwnProcess::Descriptors();
    const std::vector<std::tuple<Call, int, bool>> calls{
        {Call::OPENDIR, EMFILE, true}, {Call::READLINK, EACCES, true},
        {Call::READDIR, EIO, true},    {Call::PIPE2, EMFILE, false},
        {Call::DUP3, EMFILE, false},   {Call::FCNTL, EMFILE, false},
        {Call::CLOSE, EIO, false},     {Call::INOTIFY_RM_WATCH, EINVAL, false},
        {Call::PRCTL, EPERM, false},
    };
    for (const auto& [call, error, isInherited] : calls) {
        SCOPED_TRACE(static_cast<int>(call));
        const bool isEachTime = call == Call::CLOSE || call == Call::PRCTL || call == Call::READLINK;
        {
            const Fault fault(call, error, isEachTime ? Fault::ALWAYS : 2);
            Watch();
            EXPECT_TRUE(Eventually(PATIENCE, [&] { return fault.HasStruck(); }));
        }
        EXPECT_TRUE(SeesWhatComes());
        EXPECT_EQ(InheritableInotifyDescriptors(), isInherited ? 1 : 0);
        watcher.reset();
        EXPECT_EQ(OwnProcess::Descriptors(), descriptors);
    }
}

TEST_F(AFailingCallOfTheWatcher, LeavesNothingWhenItsThreadCannotBeMade)
{
    std::thread([] {}).join(); // a sanitizer adds a thread of its own to the first one
    const int descriptors = OwnProcess::Descriptors();
    const int threads = OwnProcess::Threads();
    {
        const Fault fault(Call::START_THREAD, EAGAIN);
        EXPECT_THROW(Watch(), std::system_error);
    }
    EXPECT_TRUE(Eventually(PATIENCE, [&] { return OwnProcess::Threads() == threads; }));
    EXPECT_EQ(OwnProcess::Descriptors(), descriptors);
    Watch();
    EXPECT_TRUE(SeesWhatComes());
}

TEST_F(AFailingCallOfTheWatcher, RaisesNothingWhileTheCollectionCannotBeRead)
{
    collection.Bundle("media").Write();
    Watch();
    for (const auto& [call, error] : {std::pair{Call::OPENDIR, EMFILE}, std::pair{Call::READDIR, EIO}}) {
        log.Restart();
        EXPECT_EQ(EventsWhile(call, error), 0);
        EXPECT_TRUE(log.HasPart("bundle collection dir[" + collection.Path() + "/] can not be read: "));
        EXPECT_EQ(log.CountPart("can not be read: "), 1);
        EXPECT_TRUE(IsLogged("bundle collection dir[" + collection.Path() + "/] can be read again."));
        EXPECT_TRUE(SeesWhatComes());
    }
}

TEST_F(AFailingCallOfTheWatcher, DoesNotRaiseAnItemWithoutAStatusAsRemoved)
{
    collection.Bundle("media").Write();
    Watch();
    for (const int error : {EIO, EACCES, ENOMEM}) {
        EXPECT_EQ(EventsWhile(Call::FSTATAT, error), 0);
    }
    EXPECT_TRUE(SeesWhatComes());
}

TEST_F(AFailingCallOfTheWatcher, RecognisesAWithdrawnDirectoryByItsInodeNumber)
{
    const std::string path = collection.Bundle("media").Write();
    Watch();
    const Fault fault(Call::STATX, ENOSYS);
    const CallCounter calls(Call::STATX);
    {
        BundleDirWatcher::Withdrawal withdrawal(*watcher, path);
        withdrawal.Begin();
    }
    EXPECT_TRUE(Eventually(PATIENCE, [&] { return calls.Count() > 10; }));
    EXPECT_EQ(events, 0);
    EXPECT_TRUE(watcher->IsWithdrawn(path));
    std::filesystem::rename(path, outside / "media");
    collection.Bundle("media").Write();
    EXPECT_TRUE(Eventually(PATIENCE, [&] { return events == 2; })) << "removed and added";
}

TEST_F(AFailingCallOfAnItemThread, LeavesItRunningWithoutAName)
{
    const auto activator = std::make_shared<SystemServer::BundleThreadActivator>(
        std::make_shared<Bundle>(std::make_shared<BundleStorageDir>(
            collection.Bundle("tuner").ThreadMode().Library("tunerd.so", "Succeed", THREAD_ITEM).Write())));
    const Fault fault(Call::PRCTL, EPERM);
    activator->Start();
    EXPECT_TRUE(IsLogged("bundle[tuner] dyn lib[tunerd.so] activate done."));
    EXPECT_TRUE(fault.HasStruck());
}

TEST_F(AFailingCallForALimit, LeavesAnItemWithTheLimitOfTheServer)
{
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit few{128, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    {
        const Fault fault(Call::SET_LIMIT, EPERM); // in the child
        Start(collection.Bundle("media").Copy("probe", PROBE_ITEM));
    }
    EXPECT_EQ(Reported("probe", "limit"), std::vector<std::string>{"128"});
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
}

TEST_F(AFailingCallForALimit, LeavesTheLimitAsItWas)
{
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    {
        const Fault fault(Call::SET_LIMIT, EPERM);
        SystemServer::BoundDescriptorLimit();
        EXPECT_TRUE(fault.HasStruck());
    }
    rlimit after{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &after), 0);
    EXPECT_EQ(after.rlim_cur, before.rlim_cur);
}
