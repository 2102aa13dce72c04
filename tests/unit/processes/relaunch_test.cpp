// Dead items that are relaunched: for which deaths, how soon, and in which group.

#include "unit/processes/monitor_held.h"
#include "unit/processes/the_monitor.h"

#include "support/eventually.h"

#include <Poco/Exception.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>
#include <vector>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

using TheMonitorDeathTest = TheMonitor;

/// The statuses by which an item asks for its relaunch. The test has its own list.
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

} // namespace

TEST_F(TheMonitor, RelaunchesForExactlyTheStatusesThatAskForIt)
{
    const int pid = 1'000'000'000;
    ProcessTable::Add(pid, {"media", "media.mediad", "/nowhere", "mediad", ""});
    const Fault fault(Call::FORK, EAGAIN); // the attempt is enough to see
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
        << "the dead item is still in the table";
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

TEST_F(TheMonitor, RelaunchesAShellScriptThatDoesNotExist)
{
    Start(collection.Bundle("media").Item("x.sh"));
    EXPECT_TRUE(IsLogged("media.x.sh relaunch done."));
    EXPECT_TRUE(log.HasPart("normal termination, exit status: 2."));
}

TEST_F(TheMonitor, RelaunchesAnItemThatAskedForItBeforeItWasKilled)
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
    EXPECT_EQ(::getpgid(next), ::getpgrp()) << "it stays in the group in which it was forked";
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
