// How the monitor waits: for items only, fairly, and until a wait fails.

#include "unit/processes/the_monitor.h"

#include "support/eventually.h"

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <thread>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

TEST_F(TheMonitor, IgnoresOtherChildrenOfTheServer)
{
    const int pid = LaunchMediad(Sleeper());
    const pid_t stranger = ::fork();
    if (stranger == 0) {
        ::_exit(2);
    }
    ASSERT_TRUE(IsLogged("non-bundle process[" + std::to_string(stranger) + "] exit."));
    EXPECT_TRUE(log.HasInfo("non-bundle process[" + std::to_string(stranger) + "] exit."));
    EXPECT_EQ(::waitpid(stranger, nullptr, 0), -1) << "not reaped";
    EXPECT_FALSE(log.HasPart("termination"));
    ASSERT_EQ(::kill(pid, SIGTERM), 0);
    EXPECT_TRUE(IsLogged("relaunch media.mediad..."));
}

TEST_F(TheMonitor, NeverReapsAScriptBeforeItsCaller)
{
    LaunchMediad(Sleeper());
    const SystemServer::Bundle bundle(std::make_shared<SystemServer::BundleStorageDir>(
        collection.Bundle("scripted").Install("#!/bin/sh\nexit 0\n").Write()));
    constexpr int runs = 60;
    std::thread other([&] {
        for (int i = 0; i < runs; ++i) {
            bundle.RunScript("install.sh");
        }
    });
    for (int i = 0; i < runs; ++i) {
        bundle.RunScript("install.sh");
    }
    other.join();
    EXPECT_EQ(log.CountPart("script/install.sh] done."), 2 * runs);
    EXPECT_FALSE(log.HasPart("exception info"));
    EXPECT_FALSE(log.HasPart("non-bundle process"));
    EXPECT_FALSE(log.HasPart("setpgid"));
}

TEST_F(TheMonitor, NeverReapsAScriptThatEndsBeforeItsCallerWaits)
{
    LaunchMediad(Sleeper());
    const SystemServer::Bundle bundle(std::make_shared<SystemServer::BundleStorageDir>(
        collection.Bundle("scripted").Install("#!/bin/sh\nexit 0\n").Write()));
    const BeforeEach move(Call::SETPGID, [this](int pid) {
        if (pid != 0) { // a call by the parent
            siginfo_t info{};
            ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
            EXPECT_FALSE(Eventually(300ms, [this] { return log.HasPart("non-bundle process"); }));
        }
    });
    bundle.RunScript("install.sh");
    EXPECT_EQ(log.CountPart("script/install.sh] done."), 1);
    EXPECT_FALSE(log.HasPart("exception info"));
    EXPECT_FALSE(log.HasPart("non-bundle process"));
}

TEST_F(TheMonitor, EndsForGoodWhenAWaitFails)
{
    {
        const Fault fault(Call::WAITID, EINVAL);
        LaunchMediad(Sleeper());
        ASSERT_TRUE(IsLogged("waitpid fail, errno is 22."));
    }
    EXPECT_TRUE(log.HasError("waitpid fail, errno is 22."));
    EXPECT_TRUE(log.InOrder({Group(), "waitpid fail, errno is 22."}));
    EXPECT_TRUE(ProcessTable::IsMonitorRunning());
    log.Restart();
    const std::string path = collection.Bundle("other").Item("otherd", Exiting(2)).Write();
    Launch(path + "/bin/otherd", "other");
    EXPECT_FALSE(log.HasPart("start monitor thread."));
    EXPECT_FALSE(log.HasPart("termination"));
    EXPECT_EQ(ProcessTable::Entries().size(), 2U) << "the item is not reaped";
    ProcessTable::EndAllWithoutMonitor();
}

TEST_F(TheMonitor, EndsForGoodWithoutAChildToWaitFor)
{
    // The kernel itself reports the failure: the test reaps the item, and the server has no other child.
    std::atomic<bool> isStolen{false};
    {
        const std::string path = collection.Bundle("media").Item("mediad", Sleeper()).Write() + "/bin/mediad";
        const BeforeEach wait(Call::WAITID, [&isStolen](int) {
            if (!isStolen.exchange(true)) {
                const int pid = PidOf("media.mediad");
                ::kill(pid, SIGKILL);
                ::waitpid(pid, nullptr, 0);
            }
        });
        Launch(path);
        ASSERT_TRUE(IsLogged("waitpid fail, errno is 10."));
    }
    EXPECT_TRUE(ProcessTable::IsMonitorRunning());
    ProcessTable::EndAllWithoutMonitor();
}

TEST_F(TheMonitor, RetriesAWaitThatASignalInterrupts)
{
    {
        const Fault fault(Call::WAITID, EINTR, 5);
        LaunchMediad(Exiting(0));
    }
    ASSERT_TRUE(MonitorEnds());
    EXPECT_TRUE(log.HasPart("normal termination, exit status: 0."));
    EXPECT_FALSE(log.HasPart("waitpid fail"));
}

TEST_F(TheMonitor, ContinuesAfterAChildThatWasReapedElsewhere)
{
    {
        const Fault fault(Call::WAITPID, 0, 1); // it finds no ended child
        LaunchMediad(Exiting(0));
    }
    ASSERT_TRUE(MonitorEnds());
    EXPECT_TRUE(log.HasPart("normal termination, exit status: 0."));
    EXPECT_FALSE(log.HasPart("waitpid fail"));
}

TEST_F(TheMonitor, WaitsForTheServersGroupWhenThatOfTheLowestPidIsUnknown)
{
    const Fault fault(Call::GETPGID, ESRCH, 1, 1); // the first call is the launch's
    const int pid = LaunchMediad(Exiting(0));
    ASSERT_TRUE(MonitorEnds());
    EXPECT_TRUE(log.HasInfo("Failed to get pgid of [" + std::to_string(pid) + "] "));
    EXPECT_TRUE(
        log.InOrder({"Failed to get pgid of [" + std::to_string(pid) + "] ", "BundleProcessActivator monitor pgid [0] ",
                     Named(pid) + " normal termination, exit status: 0."}));
}

TEST_F(TheMonitor, HandlesOtherItemsBesideOneThatAlwaysCrashesAtOnce)
{
    const std::string path = collection.Bundle("media").Item("looper", Exiting(2)).Item("steady", Sleeper()).Write();
    Launch(path + "/bin/looper");
    ASSERT_TRUE(IsLogged("media.looper relaunch done.", 2)); // from now on the monitor itself has forked it
    Launch(path + "/bin/steady");
    const int victim = PidOf("media.steady");
    const auto before = Clock::now();
    ASSERT_EQ(::kill(victim, SIGTERM), 0);
    ASSERT_TRUE(IsLogged("media.steady relaunch done."));
    EXPECT_LT(Clock::now() - before, 15s);
}

TEST_F(TheMonitor, HandlesOtherItemsBesideOneThatIsAlwaysKilled)
{
    const std::string path =
        collection.Bundle("media").Item("looper", "#!/bin/sh\nkill -9 $$\n").Item("ended", Sleeper()).Write();
    Launch(path + "/bin/looper");
    ASSERT_TRUE(IsLogged("media.looper relaunch done.", 2));
    Launch(path + "/bin/ended");
    const int victim = PidOf("media.ended");
    ASSERT_EQ(::kill(victim, SIGTERM), 0);
    EXPECT_TRUE(IsLogged("media.ended[" + std::to_string(victim) + "] abnormal termination, signal: 15."));
}
