#include "system/system_test.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>

namespace {

using namespace std::chrono_literals;

class ATerminationSignal : public SystemTest, public ::testing::WithParamInterface<int> {};
class EndingTheServer : public SystemTest {
protected:
    /// Writes an item that crashes and is relaunched all the time, and libraries that run.
    void WriteABusyCollection() const
    {
        collection.Bundle("crasher").Item("one.sh", Shell("exit 2")).Write();
        collection.Bundle("threads")
            .ThreadMode()
            .Library("libone.so", "SleepForever", TEST_LIBRARY)
            .Library("libtwo.so", "SleepThroughCancellation", TEST_LIBRARY)
            .Write();
    }
};

class AServerThatIsKilled : public SystemTest {
protected:
    /// Whether every process that the server has left runs an item.
    bool OnlyItemsAreLeft() const
    {
        const std::string server = std::filesystem::canonical(BUNDLE_SERVER_PROGRAM).string();
        const std::vector<pid_t> left = daemon.Descendants();
        return std::none_of(left.begin(), left.end(),
                            [&server](pid_t pid) { return ProcessOf::Executable(pid) == server; });
    }
};

/// The bound for "promptly": short for a user at a terminal, long enough for a busy machine.
constexpr auto PROMPTLY = 3s;

} // namespace

TEST_P(ATerminationSignal, EndsTheServerAtOnceAndWithSuccess)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    collection.Bundle("threads").ThreadMode().Library("libone.so", "SleepForever", TEST_LIBRARY).Write();
    ASSERT_TRUE(daemon.StartServing());
    const pid_t item = daemon.WaitForItem("radio", "radiod");
    ASSERT_NE(item, 0);
    ASSERT_TRUE(Exists(SERVICE_SOCKET));
    daemon.Signal(GetParam());
    const auto end = daemon.WaitForEnd(PROMPTLY);
    ASSERT_TRUE(end) << "one signal is enough";
    EXPECT_EQ(end->status, 0);
    EXPECT_EQ(end->signal, 0);
    EXPECT_FALSE(Exists(SERVICE_SOCKET));
    EXPECT_EQ(daemon.Errors(), "");
    EXPECT_TRUE(ProcessOf::IsAlive(item)) << "items outlive the server";
    EXPECT_EQ(daemon.CountInLog("state changing[Active]"), 0) << "no bundle is stopped";
}
INSTANTIATE_TEST_SUITE_P(Is, ATerminationSignal, ::testing::Values(SIGINT, SIGTERM, SIGQUIT),
                         [](const auto& signal) { return "Signal" + std::to_string(signal.param); });

TEST_F(EndingTheServer, StopsAndUnloadsNothing)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Uninstall(Shell(": > " + Note("uninstalled"))).Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(daemon.Stop().status, 0);
    EXPECT_FALSE(Exists(Note("uninstalled")));
    EXPECT_EQ(daemon.CountInLog("stop bundle"), 0);
    EXPECT_EQ(daemon.CountInLog("unload bundle"), 0);
}

TEST_F(EndingTheServer, ClosesTheConnectionsOfItsClients)
{
    ASSERT_TRUE(daemon.StartServing());
    const UnixClient client(SERVICE_SOCKET);
    ASSERT_TRUE(client.Ask(PacketOf(1, 0, ""), DaemonRunner::PATIENCE));
    EXPECT_EQ(daemon.Stop().status, 0);
    EXPECT_TRUE(client.IsClosedByPeer(DaemonRunner::PATIENCE));
}

TEST_F(EndingTheServer, DoesNotWaitForTheRestOfTheStartUp)
{
    BundleBuilder radio = collection.Bundle("radio");
    for (const char* item : {"one", "two", "three", "four", "five", "six", "seven", "eight", "nine", "ten"}) {
        radio.Copy(item, TEST_SLEEPER);
    }
    radio.Write();
    daemon.Start();
    ASSERT_NE(daemon.WaitForItem("radio", "two"), 0);
    daemon.Signal(SIGTERM);
    EXPECT_TRUE(daemon.WaitForEnd(PROMPTLY));
    EXPECT_LT(daemon.PidsOf("radio", "four").size(), 1U);
    EXPECT_FALSE(Exists(SERVICE_SOCKET));
}

TEST_F(EndingTheServer, DoesNotWaitForAScriptOfTheStartUp)
{
    collection.Bundle("radio").Install(Shell(": > " + Note("begun") + "; exec sleep 1000")).Write();
    daemon.Start();
    ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return Exists(Note("begun")); }));
    daemon.Signal(SIGTERM);
    EXPECT_TRUE(daemon.WaitForEnd(PROMPTLY));
}

// The detached threads' data must outlive main. Each round ends the server at another moment of a relaunch.
TEST_F(EndingTheServer, WhileItemsAreRelaunchedAndLibrariesRunIsClean)
{
    WriteABusyCollection();
    for (int round = 0; round < 10; ++round) {
        ASSERT_TRUE(daemon.StartServing()) << round;
        ASSERT_FALSE(daemon.WaitForEnd(std::chrono::milliseconds(120 * round))) << round;
        const ProcessEnd end = daemon.Stop(SIGTERM, PROMPTLY);
        ASSERT_EQ(end.status, 0) << round << ": killed by signal " << end.signal;
    }
    EXPECT_EQ(daemon.Errors(), "");
}

TEST_F(EndingTheServer, AtTheMomentOfARelaunchIsClean)
{
    WriteABusyCollection();
    for (int round = 0; round < 10; ++round) {
        ASSERT_TRUE(daemon.StartServing()) << round;
        const int relaunches = daemon.CountInLog("crasher.one.sh is relaunching ...");
        ASSERT_TRUE(daemon.WaitForLog("crasher.one.sh is relaunching ...", relaunches + 1));
        const ProcessEnd end = daemon.Stop(SIGTERM, PROMPTLY);
        ASSERT_EQ(end.status, 0) << round << ": killed by signal " << end.signal;
    }
    EXPECT_EQ(daemon.Errors(), "");
}

// The process ends a while after main and after the destruction of static objects. The monitor's data must last until
// then.
TEST_F(EndingTheServer, LetsTheMonitorRunUntilTheEnd)
{
    Interpose("LINGER_AT_EXIT", "6");
    daemon.Configure("global.server_submodule_dir", LOADER_DIRECTORY);
    collection.Bundle("crasher")
        .Library("libcrasher.so", "ReturnTwo", TEST_LIBRARY)
        .Item("crasher.sh", Shell("exit 2"))
        .Write();
    ASSERT_TRUE(daemon.StartServing());
    daemon.Signal(SIGTERM);
    ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [] { return !Exists(SERVICE_SOCKET); })) << "the end has begun";
    const std::string library = "crasher.libcrasher.so relaunch done.";
    const std::string shell = "crasher.crasher.sh relaunch done.";
    const int libraryBefore = daemon.CountInLog(library);
    const int shellBefore = daemon.CountInLog(shell);
    EXPECT_TRUE(daemon.WaitForLog(library, libraryBefore + 1, 6s));
    EXPECT_TRUE(daemon.WaitForLog(shell, shellBefore + 1, 6s));
    const auto end = daemon.WaitForEnd();
    ASSERT_TRUE(end);
    EXPECT_EQ(end->status, 0) << "killed by signal " << end->signal;
    EXPECT_EQ(daemon.Errors(), "");
}

// The kernel delivers a signal to any thread that does not block it. There the signal would end the process.
TEST_F(EndingTheServer, IsCleanWhenTheFrameworksThreadsBlockTheSignalsLate)
{
    Interpose("DELAY_SIGMASK", "2");
    ASSERT_TRUE(daemon.StartServing());
    const ProcessEnd end = daemon.Stop();
    EXPECT_EQ(end.status, 0) << "killed by signal " << end.signal;
}

TEST_F(EndingTheServer, WhileTheDirectoryIsFollowedIsClean)
{
    for (int round = 0; round < 6; ++round) {
        ASSERT_TRUE(daemon.StartServing()) << round;
        const std::string name = "radio" + std::to_string(round);
        staging.Bundle(name).Copy("radiod", TEST_SLEEPER).Write();
        MoveIn(name);
        const int events = daemon.CountInLog("dir item add event happen.");
        ASSERT_TRUE(daemon.WaitForLog("dir item add event happen.", events + 1));
        // The server waits for the running handler: a pause of a second, and perhaps the launch of one item.
        const ProcessEnd end = daemon.Stop(SIGTERM, DaemonRunner::PATIENCE);
        ASSERT_EQ(end.status, 0) << round << ": killed by signal " << end.signal;
        std::filesystem::remove_all(collection / name);
    }
    EXPECT_EQ(daemon.Errors(), "");
}

TEST_F(AServerThatIsKilled, LeavesItsSocketToTheNextOne)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    const pid_t orphan = daemon.WaitForItem("radio", "radiod");
    EXPECT_EQ(daemon.Stop(SIGKILL).signal, SIGKILL);
    EXPECT_TRUE(Exists(SERVICE_SOCKET));
    EXPECT_FALSE(UnixClient(SERVICE_SOCKET).IsConnected());
    EXPECT_TRUE(ProcessOf::IsAlive(orphan));
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_NE(daemon.WaitForItem("radio", "radiod", 2), 0);
    EXPECT_EQ(RequestDelete("radio"), 200);
    EXPECT_TRUE(ProcessOf::IsAlive(orphan)) << "no server supervises the orphan any more";
    EXPECT_EQ(daemon.Stop().status, 0);
    EXPECT_FALSE(Exists(SERVICE_SOCKET));
}

TEST_F(AServerThatIsKilled, DuringALaunchLeavesNoWaitingChild)
{
    // The child waits for the parent's go-ahead while the parent is busy with the child's group.
    Interpose("DELAY_SETPGID", "1000");
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog("wait for parent process ready..."));
    ASSERT_EQ(daemon.Descendants().size(), 1U);
    EXPECT_FALSE(OnlyItemsAreLeft());
    EXPECT_EQ(daemon.Stop(SIGKILL).signal, SIGKILL);
    EXPECT_TRUE(Eventually(5s, [this] { return daemon.Descendants().empty(); }));
    EXPECT_LE(daemon.CountInLog("read pipe fail."), 3) << "the child spins";
}

TEST_F(AServerThatIsKilled, AtAnyMomentLeavesOnlyItems)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    collection.Bundle("tuner").Item("tuner.sh", Shell("exec sleep 1000")).Write();
    for (int round = 0; round < 60; ++round) {
        const int launches = daemon.CountInLog("start bundle[radio] activator...");
        daemon.Start();
        ASSERT_TRUE(daemon.WaitForLog("start bundle[radio] activator...", launches + 1));
        const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(50 * round);
        while (std::chrono::steady_clock::now() < until) { // busy waiting, because a sleep would be longer
        }
        ASSERT_EQ(daemon.Stop(SIGKILL).signal, SIGKILL);
        ASSERT_TRUE(Eventually(5s, [this] { return OnlyItemsAreLeft(); })) << round;
        for (const pid_t item : daemon.Descendants()) {
            ::kill(item, SIGKILL);
        }
    }
    EXPECT_LE(daemon.CountInLog("read pipe fail."), 3 * 60);
}
