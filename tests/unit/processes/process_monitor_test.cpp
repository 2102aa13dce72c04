// The monitor's life, and what it logs of an item that has ended or stopped.

#include "unit/processes/monitor_held.h"
#include "unit/processes/the_monitor.h"

#include "support/eventually.h"

#include <Poco/Exception.h>

#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

/// The status of a process that a signal has stopped, as wait() gives it.
int StopStatus(int signal)
{
    return (signal << 8) | 0x7f;
}

} // namespace

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

TEST_F(TheMonitor, DropsTheMarkOfAnItemThatEndedBeforeItWasKilled)
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
