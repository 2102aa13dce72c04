#include "unit/processes/monitor_held.h"
#include "unit/processes/running_items.h"

#include "support/eventually.h"
#include "support/fault.h"

#include <Poco/Exception.h>

#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <thread>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

class TheMonitor : public RunningItems {
public:
    /// "media.mediad" and its pid, as records begin.
    static std::string Named(int pid) { return "media.mediad[" + std::to_string(pid) + "]"; }

    /// Launches media.mediad and gives its pid, also where it has ended meanwhile.
    int LaunchMediad(const std::string& content)
    {
        const std::string path = collection.Bundle("media").Item("mediad", content).Write();
        int pid = 0;
        const BeforeEach release(Call::WRITE_BYTE, [&pid](int) { pid = pid == 0 ? PidOf("media.mediad") : pid; });
        Launch(path + "/bin/mediad");
        return pid;
    }

    std::string Group() const { return "BundleProcessActivator monitor pgid [" + std::to_string(::getpgrp()) + "] "; }
};

using TheMonitorDeathTest = TheMonitor;

/// The statuses by which an item asks for its relaunch, written down once more.
bool AsksForRelaunch(int status)
{
    switch (status) {
    case 2:
    case 6:
    case 7:
    case 8:
    case 10:
    case 11:
    case 15:
    case 31:
    case 255:
        return true;
    default:
        return false;
    }
}

int StopStatus(int signal)
{
    return (signal << 8) | 0x7f;
}

} // namespace

TEST_F(TheMonitor, RelaunchesForExactlyTheStatusesThatAskForIt)
{
    const int pid = 1'000'000'000;
    ProcessTable::Add(pid, {"media", "media.mediad", "/nowhere", "mediad", ""});
    const Fault fault(Call::FORK, EAGAIN); // an attempt is enough
    for (int status = 0; status <= 255; ++status) {
        log.Restart();
        bool isRelaunched = false;
        try {
            ProcessTable::ExitStatusProc(pid, status);
        } catch (const Poco::InvalidArgumentException& e) {
            EXPECT_EQ(e.message(), "process[media.mediad] fork fail.");
            isRelaunched = true;
        }
        EXPECT_EQ(isRelaunched, AsksForRelaunch(status)) << status;
        const std::string text = std::to_string(status);
        if (isRelaunched) {
            EXPECT_EQ(log.Messages(),
                      (std::vector<std::string>{"entering exit status proc....",
                                                Named(pid) + " exit status [" + text +
                                                    "] need relaunch and now media.mediad is relaunching ..."}));
        } else {
            EXPECT_EQ(log.Messages(),
                      (std::vector<std::string>{"entering exit status proc....",
                                                Named(pid) + " does not need relaunch with exit status [" + text + "].",
                                                "leaving exit status proc...."}));
        }
        EXPECT_EQ(log.Records().at(0).level, "INFO");
    }
    ProcessTable::Remove(pid);
}

TEST_F(TheMonitor, LogsAnUnknownPidWithAnEmptyName)
{
    const int pid = 1'000'000'000;
    ProcessTable::ExitStatusProc(pid, 0);
    EXPECT_TRUE(log.Has("[1000000000] does not need relaunch with exit status [0]."));
    EXPECT_EQ(ProcessTable::Entries().count(pid), 1U);
    ProcessTable::Remove(pid);
}

TEST_F(TheMonitor, DropsAnItemThatHasEndedAndEndsWithTheLast)
{
    const int pid = LaunchMediad(Exiting(0));
    ASSERT_TRUE(MonitorEnds());
    EXPECT_TRUE(log.InOrder({"child process create, start monitor thread.", Group(),
                             Named(pid) + " normal termination, exit status: 0.", "entering exit status proc....",
                             Named(pid) + " does not need relaunch with exit status [0].",
                             "leaving exit status proc....", "all child process exit, stop monitor thread."}));
    EXPECT_TRUE(ProcessTable::Entries().empty());
    EXPECT_EQ(log.CountPart("abnormal"), 0);
}

TEST_F(TheMonitor, DropsAnItemThatHasEndedWithStatusOne)
{
    const int pid = LaunchMediad(Exiting(1));
    ASSERT_TRUE(MonitorEnds());
    EXPECT_TRUE(log.HasInfo(Named(pid) + " normal termination, exit status: 1."));
    EXPECT_FALSE(log.HasPart("need relaunch and"));
}

TEST_F(TheMonitor, IsStartedAgainByTheNextLaunch)
{
    LaunchMediad(Exiting(0));
    ASSERT_TRUE(MonitorEnds());
    const int second = LaunchMediad(Exiting(0));
    ASSERT_TRUE(MonitorEnds());
    EXPECT_EQ(log.Count("child process create, start monitor thread."), 2);
    EXPECT_EQ(log.Count("all child process exit, stop monitor thread."), 2);
    EXPECT_TRUE(log.HasInfo(Named(second) + " normal termination, exit status: 0."));
}

TEST_F(TheMonitor, IsStartedOnceForManyLaunches)
{
    Start(collection.Bundle("media").Item("one", Sleeper()).Item("two", Sleeper()));
    EXPECT_EQ(log.Count("child process create, start monitor thread."), 1);
}

TEST_F(TheMonitor, RelaunchesAnItemThatAsksForItByItsStatus)
{
    const int pid = LaunchMediad(ExitingAtTrigger(255));
    log.Restart();
    PullTrigger();
    ASSERT_TRUE(IsLogged("leaving exit status proc...."));
    const int next = PidOf("media.mediad");
    EXPECT_NE(next, pid);
    EXPECT_TRUE(
        log.InOrder({Group(), Named(pid) + " normal termination, exit status: 255.", "entering exit status proc....",
                     Named(pid) + " exit status [255] need relaunch and now media.mediad is relaunching ...",
                     "parent process ready.notify child process[" + std::to_string(next) + "]...",
                     "notify child process[" + std::to_string(next) + "] done.", "media.mediad relaunch done.",
                     "leaving exit status proc...."}));
    EXPECT_TRUE(Eventually(PATIENCE, [] { return ProcessTable::Entries().size() == 1; }))
        << "the dead is not forgotten";
    EXPECT_FALSE(log.HasPart("start monitor thread."));
    EXPECT_EQ(::kill(next, 0), 0);
}

TEST_F(TheMonitor, RelaunchesWithinTheSecondAndPausesForOne)
{
    LaunchMediad(ExitingAtTrigger(2));
    const auto before = Clock::now();
    PullTrigger();
    ASSERT_TRUE(Eventually(PATIENCE, [this] { return log.CountPart("execute binary[") == 2; }));
    EXPECT_LT(Clock::now() - before, 10s);
    ASSERT_TRUE(IsLogged("media.mediad relaunch done."));
    EXPECT_GE(Clock::now() - before, 1s);
}

TEST_F(TheMonitor, RelaunchesAnItemThatDiesOfASignal)
{
    const int pid = LaunchMediad(Sleeper());
    for (const int signal : {SIGTERM, SIGKILL}) {
        const int victim = PidOf("media.mediad");
        log.Restart();
        ASSERT_EQ(::kill(victim, signal), 0);
        ASSERT_TRUE(IsLogged("media.mediad relaunch done."));
        const std::string death = Named(victim) + " abnormal termination, signal: " + std::to_string(signal) + ".";
        EXPECT_TRUE(log.InOrder({Group(), death, death, "relaunch media.mediad...", "media.mediad relaunch done."}));
        ASSERT_TRUE(Eventually(PATIENCE, [] { return ProcessTable::Entries().size() == 1; }));
    }
    EXPECT_NE(PidOf("media.mediad"), pid);
}

TEST_F(TheMonitor, LogsADeathByASignalInTheLanguageLogToo)
{
    ::unsetenv("LC_ALL");
    ::unsetenv("LC_MESSAGES");
    ::unsetenv("LANG");
    ProcessTable::Add(1'000'000'000, {"media", "media.mediad", "/nowhere", "mediad", ""});
    const Fault fault(Call::FORK, EAGAIN);
    EXPECT_THROW(ProcessTable::HandleExit(1'000'000'000, SIGTERM), Poco::InvalidArgumentException);
    const std::vector<LogRecord> records = log.Records();
    ASSERT_EQ(records.size(), 3U);
    EXPECT_EQ(records[0].level, "INFO");
    EXPECT_EQ(records[0].module, 4);
    EXPECT_EQ(records[0].message, "media.mediad[1000000000] abnormal termination, signal: 15.");
    EXPECT_EQ(records[1].level, "ERROR");
    EXPECT_EQ(records[1].module, 5);
    EXPECT_EQ(records[1].message, "media.mediad[1000000000] abnormal termination, signal: 15.");
    EXPECT_EQ(records[2].message, "relaunch media.mediad...");
    log.Restart();
    ::setenv("LC_ALL", "zh_CN.UTF-8", 1);
    EXPECT_THROW(ProcessTable::HandleExit(1'000'000'000, SIGTERM), Poco::InvalidArgumentException);
    ::unsetenv("LC_ALL");
    EXPECT_EQ(log.Records().at(1).message, "media.mediad[1000000000] 异常终止, 信号: 15.");
    ProcessTable::Remove(1'000'000'000);
}

TEST_F(TheMonitor, DoesNotTakeAStoppedItemForADeadOne)
{
    const int pid = LaunchMediad(Sleeper());
    log.Restart();
    ASSERT_EQ(::kill(pid, SIGSTOP), 0);
    siginfo_t info{};
    ASSERT_TRUE(Eventually(PATIENCE, [&] {
        return ::waitid(P_PID, static_cast<id_t>(pid), &info, WSTOPPED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid;
    }));
    ASSERT_EQ(::kill(pid, SIGCONT), 0);
    ASSERT_EQ(::kill(pid, SIGTERM), 0);
    ASSERT_TRUE(IsLogged("relaunch media.mediad..."));
    EXPECT_FALSE(log.HasPart("stopped"));
    EXPECT_EQ(log.Messages().front(), Group());
    EXPECT_EQ(log.Messages().at(1), Named(pid) + " abnormal termination, signal: 15.");
}

TEST_F(TheMonitor, OnlyLogsAStoppedItem)
{
    ProcessTable::Add(1'000'000'000, {"media", "media.mediad", "/nowhere", "mediad", ""});
    ProcessTable::HandleExit(1'000'000'000, StopStatus(SIGTSTP));
    EXPECT_EQ(log.Messages(), std::vector<std::string>{"media.mediad[1000000000] stopped, signal: 20."});
    ProcessTable::Remove(1'000'000'000);
}

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
        if (pid != 0) { // the caller, for its child
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
    EXPECT_EQ(ProcessTable::Entries().size(), 2U) << "nobody reaps";
    ProcessTable::EndAllWithoutMonitor();
}

TEST_F(TheMonitor, EndsForGoodWhenNoChildIsLeftToWaitFor)
{
    // The kernel's own failure: the item is reaped behind the monitor's back, and nobody else is there.
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
        const Fault fault(Call::WAITPID, 0, 1); // whatever errno says
        LaunchMediad(Exiting(0));
    }
    ASSERT_TRUE(MonitorEnds());
    EXPECT_TRUE(log.HasPart("normal termination, exit status: 0."));
    EXPECT_FALSE(log.HasPart("waitpid fail"));
}

TEST_F(TheMonitor, WaitsForTheServersGroupWhenThatOfTheLowestPidIsUnknown)
{
    const Fault fault(Call::GETPGID, ESRCH, 1, 1); // the launch asks first
    const int pid = LaunchMediad(Exiting(0));
    ASSERT_TRUE(MonitorEnds());
    EXPECT_TRUE(log.HasInfo("Failed to get pgid of [" + std::to_string(pid) + "] "));
    EXPECT_TRUE(
        log.InOrder({"Failed to get pgid of [" + std::to_string(pid) + "] ", "BundleProcessActivator monitor pgid [0] ",
                     Named(pid) + " normal termination, exit status: 0."}));
}

TEST_F(TheMonitor, LogsADeadItemThatHasLeftTheTable)
{
    const int pid = LaunchMediad(ExitingAtTrigger(2));
    {
        const BeforeEach relaunch(Call::WRITE_BYTE, [pid](int) { ProcessTable::Remove(pid); });
        PullTrigger();
        ASSERT_TRUE(IsLogged("exit pid[" + std::to_string(pid) + "] not found."));
    }
    EXPECT_TRUE(log.HasError("exit pid[" + std::to_string(pid) + "] not found."));
    EXPECT_TRUE(ProcessTable::IsMonitorRunning());
    EXPECT_EQ(ProcessTable::Entries().size(), 1U);
}

TEST_F(TheMonitor, LogsAMissingGroupWhenItRelaunchesTheLowestPid)
{
    const int pid = LaunchMediad(ExitingAtTrigger(2));
    PullTrigger();
    ASSERT_TRUE(IsLogged("media.mediad relaunch done."));
    const int next = PidOf("media.mediad");
    EXPECT_NE(next, pid);
    EXPECT_TRUE(log.HasError("setpgid pid " + std::to_string(next) + " to pgid 0 failed errno Invalid argument "));
    EXPECT_EQ(::getpgid(next), ::getpgrp()) << "it is where it was born";
}

TEST_F(TheMonitor, UsesTheGroupOfALivingChildWhenItRelaunchesAnother)
{
    const std::string path =
        collection.Bundle("media").Item("first", Sleeper()).Item("mediad", ExitingAtTrigger(2)).Write();
    Launch(path + "/bin/first");
    Launch(path + "/bin/mediad");
    PullTrigger();
    ASSERT_TRUE(IsLogged("media.mediad relaunch done."));
    EXPECT_FALSE(log.HasPart("setpgid"));
    EXPECT_EQ(::getpgid(PidOf("media.mediad")), ::getpgrp());
}

TEST_F(TheMonitor, StarvesNoItemForOneThatCrashesAtOnceEachTime)
{
    const std::string path = collection.Bundle("media").Item("looper", Exiting(2)).Item("steady", Sleeper()).Write();
    Launch(path + "/bin/looper");
    ASSERT_TRUE(IsLogged("media.looper relaunch done.", 2)); // from now on it is the monitor's own child
    Launch(path + "/bin/steady");
    const int victim = PidOf("media.steady");
    const auto before = Clock::now();
    ASSERT_EQ(::kill(victim, SIGTERM), 0);
    ASSERT_TRUE(IsLogged("media.steady relaunch done."));
    EXPECT_LT(Clock::now() - before, 15s);
}

TEST_F(TheMonitor, StarvesNoItemForOneThatIsKilledEachTime)
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

TEST_F(TheMonitor, RelaunchesAShellScriptThatDoesNotExist)
{
    Start(collection.Bundle("media").Item("x.sh"));
    EXPECT_TRUE(IsLogged("media.x.sh relaunch done."));
    EXPECT_TRUE(log.HasPart("normal termination, exit status: 2."));
}

TEST_F(TheMonitor, DropsTheMarkOfAnItemThatHadEndedBeforeItWasKilled)
{
    MonitorHeld beforeItsWait(Call::WAITID);
    const auto activator = Start(collection.Bundle("media").Item("mediad", ExitingAtTrigger(0)));
    const int pid = PidOf("media.mediad");
    PullTrigger();
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    activator->Stop();
    EXPECT_EQ(ProcessTable::Marks(), std::set<int>{pid});
    beforeItsWait.Release();
    ASSERT_TRUE(MonitorEnds());
    EXPECT_TRUE(log.Has(Named(pid) + " normal termination, exit status: 0."));
    EXPECT_FALSE(log.HasPart("normal stop"));
    EXPECT_TRUE(ProcessTable::Marks().empty());
}

TEST_F(TheMonitor, RelaunchesAnItemThatHadAskedForItBeforeItWasKilled)
{
    MonitorHeld beforeItsWait(Call::WAITID);
    const auto activator = Start(collection.Bundle("media").Item("mediad", ExitingAtTrigger(6)));
    const int pid = PidOf("media.mediad");
    PullTrigger();
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    activator->Stop();
    beforeItsWait.Release();
    EXPECT_TRUE(IsLogged("media.mediad relaunch done."));
    EXPECT_TRUE(Eventually(PATIENCE, [] { return ProcessTable::Marks().empty(); }));
    EXPECT_NE(PidOf("media.mediad"), 0);
}

TEST_F(TheMonitor, NeverRunsTwice)
{
    const std::string path = collection.Bundle("media").Item("brief", Exiting(0)).Write() + "/bin/brief";
    std::thread other([&] {
        for (int i = 0; i < 3; ++i) {
            Launch(path);
        }
    });
    for (int i = 0; i < 3; ++i) {
        Launch(path);
    }
    other.join();
    ASSERT_TRUE(MonitorEnds());
    EXPECT_EQ(log.CountPart("normal termination, exit status: 0."), 6);
    EXPECT_EQ(log.Count("child process create, start monitor thread."),
              log.Count("all child process exit, stop monitor thread."));
    EXPECT_FALSE(log.HasPart("pid fail"));
    EXPECT_FALSE(log.HasPart("not found."));
}

TEST_F(TheMonitorDeathTest, EndsTheServerWhenARelaunchCannotFork)
{
    const std::string path = collection.Bundle("media").Item("mediad", Exiting(2)).Write() + "/bin/mediad";
    const auto relaunch = [&] {
        const rlimit noCore{0, 0};
        ::setrlimit(RLIMIT_CORE, &noCore);
        const Fault fault(Call::FORK, EAGAIN, Fault::ALWAYS, 1);
        Launch(path);
        MonitorEnds();
        ::_exit(0);
    };
    EXPECT_EXIT(relaunch(), ::testing::KilledBySignal(SIGABRT), "");
    EXPECT_TRUE(log.HasPart("need relaunch and now"));
    EXPECT_FALSE(log.HasPart("relaunch done."));
}

TEST_F(TheMonitorDeathTest, EndsTheServerWhenARelaunchHasNoPipe)
{
    const std::string path = collection.Bundle("media").Item("mediad", "#!/bin/sh\nkill -9 $$\n").Write();
    const auto relaunch = [&] {
        const rlimit noCore{0, 0};
        ::setrlimit(RLIMIT_CORE, &noCore);
        const Fault fault(Call::PIPE2, EMFILE, Fault::ALWAYS, 1);
        Launch(path + "/bin/mediad");
        MonitorEnds();
        ::_exit(0);
    };
    EXPECT_EXIT(relaunch(), ::testing::KilledBySignal(SIGABRT), "");
    EXPECT_TRUE(log.HasPart("relaunch media.mediad..."));
}
