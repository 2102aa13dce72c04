#include "system/system_test.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <string>
#include <utility>

namespace {

using namespace std::chrono_literals;

class AnExitStatus : public SystemTest, public ::testing::WithParamInterface<int> {};
class AKillingSignal : public SystemTest, public ::testing::WithParamInterface<int> {};
class Supervision : public SystemTest {};

} // namespace

TEST_P(AnExitStatus, AsksForARelaunch)
{
    const std::string status = std::to_string(GetParam());
    collection.Bundle("radio").Item("radio.sh", ExitOnFirstRun(Note("ran"), GetParam())).Write();
    daemon.Start();
    const pid_t second = daemon.WaitForItem("radio", "radio.sh", 2);
    ASSERT_NE(second, 0);
    ASSERT_TRUE(daemon.WaitForLog("radio.radio.sh relaunch done."));
    ASSERT_TRUE(daemon.WaitForLog("leaving exit status proc...."));
    const std::string first = "radio.radio.sh[" + std::to_string(daemon.PidsOf("radio", "radio.sh")[0]) + "]";
    EXPECT_TRUE(
        InOrder(daemon.Messages(),
                {first + " normal termination, exit status: " + status + ".", "entering exit status proc....",
                 first + " exit status [" + status + "] need relaunch and now radio.radio.sh is relaunching ...",
                 "radio.radio.sh relaunch done.", "leaving exit status proc...."}));
    EXPECT_TRUE(ProcessOf::IsAlive(second));
    EXPECT_EQ(::getpgid(second), daemon.Pid());
}
INSTANTIATE_TEST_SUITE_P(Of, AnExitStatus, ::testing::Values(2, 6, 7, 8, 10, 11, 15, 31, 255),
                         [](const auto& status) { return std::to_string(status.param); });

TEST_F(Supervision, RelaunchesNoItemThatExitsWithAnyOtherStatus)
{
    const std::vector<int> statuses{0, 1, 3, 4, 5, 9, 12, 30, 32, 254};
    for (const int status : statuses) {
        // One bundle each, because they are dead long before the last one is launched.
        collection.Bundle("bundle" + std::to_string(status))
            .Item("item.sh", Shell("exit " + std::to_string(status)))
            .Write();
    }
    daemon.Start();
    for (const int status : statuses) {
        EXPECT_TRUE(daemon.WaitForLog("] does not need relaunch with exit status [" + std::to_string(status) + "]."));
    }
    ASSERT_TRUE(daemon.WaitForLog("bundle server start running..."));
    for (const int status : statuses) {
        EXPECT_EQ(daemon.PidsOf("bundle" + std::to_string(status), "item.sh").size(), 1U) << status;
    }
    EXPECT_EQ(daemon.CountInLog("relaunch done."), 0);
}

TEST_P(AKillingSignal, LeadsToARelaunch)
{
    const std::string signal = std::to_string(GetParam());
    daemon.SetEnvironment("LC_ALL", "C");
    collection.Bundle("radio").Item("radio.sh", Shell("exec sleep 1000")).Write();
    daemon.Start();
    const pid_t first = daemon.WaitForItem("radio", "radio.sh");
    ASSERT_NE(first, 0);
    ASSERT_EQ(::kill(first, GetParam()), 0);
    const pid_t second = daemon.WaitForItem("radio", "radio.sh", 2);
    ASSERT_NE(second, 0);
    ASSERT_TRUE(daemon.WaitForLog("radio.radio.sh relaunch done."));
    const std::string message =
        "radio.radio.sh[" + std::to_string(first) + "] abnormal termination, signal: " + signal + ".";
    EXPECT_TRUE(
        InOrder(daemon.Messages(), {message, message, "relaunch radio.radio.sh...", "radio.radio.sh relaunch done."}));
    bool isToldToPeople = false;
    for (const LogRecord& record : daemon.Log()) {
        isToldToPeople = isToldToPeople || (record.message == message && record.level == "ERROR" &&
                                            record.source == "-" && record.line.find(" 5 0 ") != std::string::npos);
    }
    EXPECT_TRUE(isToldToPeople);
}
INSTANTIATE_TEST_SUITE_P(Of, AKillingSignal, ::testing::Values(SIGKILL, SIGTERM, SIGSEGV, SIGABRT, SIGHUP),
                         [](const auto& signal) { return std::to_string(signal.param); });

TEST_F(Supervision, LogsAnAbnormalEndInTheSecondLanguageToo)
{
    daemon.SetEnvironment("LC_ALL", "zh_CN.UTF-8");
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    daemon.Start();
    const pid_t pid = daemon.WaitForItem("radio", "radiod");
    ::kill(pid, SIGKILL);
    EXPECT_TRUE(daemon.WaitForLog("radio.radiod[" + std::to_string(pid) + "] abnormal termination, signal: 9."));
    EXPECT_TRUE(daemon.WaitForLog("radio.radiod[" + std::to_string(pid) + "] 异常终止, 信号: 9."));
}

TEST_F(Supervision, RelaunchesAKilledItemAtOnceEachTime)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    daemon.Start();
    for (int round = 1; round <= 4; ++round) {
        const pid_t pid = daemon.WaitForItem("radio", "radiod", round);
        ASSERT_NE(pid, 0) << round;
        ::kill(pid, SIGKILL);
    }
    EXPECT_NE(daemon.WaitForItem("radio", "radiod", 5), 0);
}

// The server asks for the group of the lowest pid. That is the dead item, which it is about to relaunch.
TEST_F(Supervision, RelaunchesTheItemOfTheLowestPidEvenIfItsGroupIsUnknown)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Copy("tunerd", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    std::string item = "radiod";
    std::string otherItem = "tunerd";
    if (daemon.WaitForItem("radio", item) > daemon.WaitForItem("radio", otherItem)) {
        std::swap(item, otherItem); // the kernel's pids have wrapped around
    }
    ::kill(daemon.WaitForItem("radio", item), SIGKILL);
    const pid_t second = daemon.WaitForItem("radio", item, 2);
    ASSERT_NE(second, 0);
    EXPECT_TRUE(daemon.WaitForLog("setpgid pid " + std::to_string(second) + " to pgid 0 failed errno "));
    EXPECT_EQ(::getpgid(second), daemon.Pid()) << "it stays in the group of its parent";
    ::kill(second, SIGKILL);
    EXPECT_NE(daemon.WaitForItem("radio", item, 3), 0) << "it is still supervised";
    ::kill(daemon.WaitForItem("radio", otherItem), SIGKILL);
    EXPECT_NE(daemon.WaitForItem("radio", otherItem, 2), 0);
}

TEST_F(Supervision, RelaunchesAnItemThatEndsAtOnceAboutOnceASecond)
{
    collection.Bundle("radio").Item("radio.sh", Shell("exit 2")).Write();
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog("radio.radio.sh relaunch done.", 1));
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(daemon.WaitForLog("radio.radio.sh relaunch done.", 4));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 2900ms);
}

TEST_F(Supervision, RelaunchesAMissingShellItemAgainAndAgain)
{
    const int end = std::system("/bin/sh /nonexistent.sh 2> /dev/null");
    if (!WIFEXITED(end) || WEXITSTATUS(end) != 2) {
        GTEST_SKIP() << "this machine's shell ends with another status than 2 when it finds no script";
    }
    collection.Bundle("radio").Item("radio.sh").Write();
    daemon.Start();
    EXPECT_TRUE(daemon.WaitForLog("radio.radio.sh relaunch done.", 3));
}

TEST_F(Supervision, OfABundleIsNotDelayedByItemsThatCrashAtOnce)
{
    collection.Bundle("crasher").Item("one.sh", Shell("exit 2")).Item("two.sh", Shell("exit 31")).Write();
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    collection.Bundle("tuner").Copy("tunerd", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    // Lets the monitor relaunch the crashing items for a while.
    ASSERT_TRUE(daemon.WaitForLog("crasher.two.sh relaunch done.", 2));
    for (int round = 1; round <= 5; ++round) {
        for (const auto& [bundle, item] : {std::pair("radio", "radiod"), std::pair("tuner", "tunerd")}) {
            const pid_t pid = daemon.WaitForItem(bundle, item, round);
            ASSERT_NE(pid, 0) << round;
            ::kill(pid, SIGKILL);
            // One second for each relaunch in a round of four items, and as much again for a slow machine.
            EXPECT_NE(daemon.WaitForItem(bundle, item, round + 1, 8s), 0) << round;
        }
    }
    EXPECT_GE(daemon.CountInLog("crasher.one.sh relaunch done."), 5) << "it keeps crashing";
}

TEST_F(Supervision, EndsWithTheLastChildAndBeginsAgainWithTheNext)
{
    collection.Bundle("radio").Item("radio.sh", Shell("exit 0")).Write();
    staging.Bundle("tuner").Item("tuner.sh", ExitOnFirstRun(Note("ran"), 6)).Write();
    ASSERT_TRUE(daemon.StartServing());
    ASSERT_TRUE(daemon.WaitForLog("all child process exit, stop monitor thread."));
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] {
        const std::vector<std::string> names = daemon.ThreadNames();
        return std::find(names.begin(), names.end(), "bundle_monitor") == names.end();
    }));
    MoveIn("tuner");
    EXPECT_TRUE(daemon.WaitForLog("child process create, start monitor thread.", 2));
    EXPECT_NE(daemon.WaitForItem("tuner", "tuner.sh", 2), 0);
}

TEST_F(Supervision, RelaunchesNoItemWhoseBundleIsStopped)
{
    collection.Bundle("radio").Copy("one", TEST_SLEEPER).Copy("two", TEST_SLEEPER).Write();
    collection.Bundle("tuner").Copy("tunerd", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    ASSERT_EQ(RequestDelete("radio"), 200);
    EXPECT_TRUE(daemon.WaitForLog("normal stop radio.one..."));
    EXPECT_TRUE(daemon.WaitForLog("normal stop radio.two..."));
    EXPECT_FALSE(daemon.WaitForLog("relaunch radio.", 1, 1500ms));
    EXPECT_EQ(daemon.PidsOf("radio", "one").size(), 1U);
    EXPECT_EQ(daemon.PidsOf("radio", "two").size(), 1U);
    ::kill(daemon.WaitForItem("tuner", "tunerd"), SIGKILL);
    EXPECT_NE(daemon.WaitForItem("tuner", "tunerd", 2), 0);
}

TEST_F(Supervision, LetsABundleBeStoppedAfterItsItemsHaveEnded)
{
    collection.Bundle("radio").Item("radio.sh", Shell("exit 0")).Write();
    ASSERT_TRUE(daemon.StartServing());
    ASSERT_TRUE(daemon.WaitForLog("all child process exit, stop monitor thread."));
    EXPECT_EQ(RequestDelete("radio"), 200);
    EXPECT_EQ(daemon.CountInLog("bundle process already exit."), 1);
}

TEST_F(Supervision, LogsAChildThatIsNoItem)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    staging.Bundle("forker").ThreadMode().Library("libforker.so", "LeaveDeadChild", TEST_LIBRARY).Write();
    ASSERT_TRUE(daemon.StartServing());
    const pid_t item = daemon.WaitForItem("radio", "radiod");
    MoveIn("forker");
    EXPECT_TRUE(daemon.WaitForLog("non-bundle process["));
    ::kill(item, SIGKILL);
    EXPECT_NE(daemon.WaitForItem("radio", "radiod", 2), 0);
}

TEST_F(Supervision, EndsForGoodWhenAWaitFails)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    staging.Bundle("breaker").ThreadMode().Library("libbreaker.so", "IgnoreDeadChildren", TEST_LIBRARY).Write();
    staging.Bundle("tuner").Copy("tunerd", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    const pid_t item = daemon.WaitForItem("radio", "radiod");
    MoveIn("breaker");
    ASSERT_TRUE(daemon.WaitForLog("activate done."));
    ::kill(item, SIGKILL);
    EXPECT_TRUE(daemon.WaitForLog("waitpid fail, errno is 10."));
    MoveIn("tuner");
    const pid_t later = daemon.WaitForItem("tuner", "tunerd");
    ASSERT_NE(later, 0) << "bundles are still launched";
    EXPECT_EQ(daemon.CountInLog("child process create, start monitor thread."), 1) << "no second monitor is started";
    ::kill(later, SIGKILL);
    EXPECT_FALSE(daemon.WaitForLog("tuner.tunerd[", 1, 2s)) << "but their ends are not seen";
    EXPECT_TRUE(daemon.IsRunning());
    EXPECT_EQ(daemon.Stop().status, 0);
}

TEST_F(Supervision, EndsTheServerWhenARelaunchCannotFork)
{
    Interpose("REFUSE_FORK_WHEN", Note("refuse"));
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    WriteFile(Note("refuse"), "");
    ::kill(daemon.WaitForItem("radio", "radiod"), SIGKILL);
    const auto end = daemon.WaitForEnd();
    ASSERT_TRUE(end);
    EXPECT_EQ(end->signal, SIGABRT);
    EXPECT_NE(daemon.Errors().find("Poco::InvalidArgumentException"), std::string::npos) << daemon.Errors();
}

TEST_F(Supervision, LeavesABundleThatCannotForkAtItsStartUnloaded)
{
    Interpose("REFUSE_FORK_WHEN", Note("refuse"));
    WriteFile(Note("refuse"), "");
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_TRUE(daemon.WaitForLog("failed to start bundle[radio] :Invalid argument: process[radio.radiod] fork fail."));
    EXPECT_EQ(RequestDelete("radio"), 404);
    EXPECT_EQ(daemon.Stop().status, 0);
}
