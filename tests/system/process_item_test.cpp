#include "system/system_test.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>

namespace {

using namespace std::chrono_literals;

class AProcessItem : public SystemTest {
protected:
    std::string ItemFile(const std::string& bundle, const std::string& item) const
    {
        return collection / bundle + "/./bin/" + item;
    }
};

/// The signal mask and the ignored signals with which the server is started. Some of them are signals that the
/// framework or the service handles.
struct SignalState {
    const char* name;
    std::vector<int> blocked;
    std::vector<int> ignored;
};

void PrintTo(const SignalState& state, std::ostream* stream)
{
    *stream << state.name;
}

class TheServersSignalState : public SystemTest, public ::testing::WithParamInterface<SignalState> {
protected:
    void SetUp() override
    {
        daemon.SetPreparation([] {
            sigset_t blocked;
            sigemptyset(&blocked);
            for (const int signal : GetParam().blocked) {
                sigaddset(&blocked, signal);
            }
            ::sigprocmask(SIG_SETMASK, &blocked, nullptr);
            for (int signal = 1; signal < 32; ++signal) {
                static_cast<void>(std::signal(signal, SIG_DFL));
            }
            for (const int signal : GetParam().ignored) {
                static_cast<void>(std::signal(signal, SIG_IGN));
            }
        });
    }

    static unsigned long long Bits(const std::vector<int>& signals)
    {
        unsigned long long bits = 0;
        for (const int signal : signals) {
            bits |= 1ULL << static_cast<unsigned>(signal - 1);
        }
        return bits;
    }

    /// The signal state in /proc/PID/status, without real-time signals: the C library uses the first two of those
    /// itself.
    static void ExpectSame(const std::string& blocked, const std::string& ignored, const std::string& whose)
    {
        constexpr unsigned long long ordinary = 0x7FFFFFFF;
        EXPECT_EQ(std::strtoull(blocked.c_str(), nullptr, 16) & ordinary, Bits(GetParam().blocked)) << whose;
        EXPECT_EQ(std::strtoull(ignored.c_str(), nullptr, 16) & ordinary, Bits(GetParam().ignored)) << whose;
    }

    static void ExpectSameOf(pid_t pid, const std::string& whose)
    {
        ASSERT_NE(pid, 0) << whose;
        ExpectSame(ProcessOf::Status(pid, "SigBlk"), ProcessOf::Status(pid, "SigIgn"), whose);
    }

    /// What scripts of that name have written, once that many have run.
    void ExpectSameOfScripts(const std::string& name, std::size_t count)
    {
        std::vector<std::string> blocked;
        std::vector<std::string> ignored;
        for (const std::string& line : Lines(ReadFile(Note(name)))) {
            if (line.rfind("SigBlk:", 0) == 0) {
                blocked.push_back(line.substr(8));
            } else if (line.rfind("SigIgn:", 0) == 0) {
                ignored.push_back(line.substr(8));
            }
        }
        ASSERT_EQ(blocked.size(), count) << name;
        ASSERT_EQ(ignored.size(), count) << name;
        for (std::size_t i = 0; i < count; ++i) {
            ExpectSame(blocked[i], ignored[i], name);
        }
    }
};

} // namespace

TEST_F(AProcessItem, ThatIsAProgramGetsItsBareNameAsItsOnlyArgument)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    const pid_t pid = daemon.WaitForItem("radio", "radiod");
    EXPECT_EQ(ProcessOf::CommandLine(pid), std::vector<std::string>{"radiod"});
    EXPECT_EQ(ProcessOf::Executable(pid), collection / "radio/bin/radiod");
}

TEST_F(AProcessItem, ThatIsAScriptIsRunByTheShellAndNeedsNoPermissionToBeExecuted)
{
    collection.Bundle("radio").Item("radio.sh", Shell("while :; do sleep 1000; done")).Write();
    std::filesystem::permissions(collection / "radio/bin/radio.sh", std::filesystem::perms::owner_read);
    ASSERT_TRUE(daemon.StartServing());
    const pid_t pid = daemon.WaitForItem("radio", "radio.sh");
    EXPECT_EQ(ProcessOf::CommandLine(pid), (std::vector<std::string>{"sh", ItemFile("radio", "radio.sh")}));
    EXPECT_EQ(daemon.CountInLog("execute shell script[" + ItemFile("radio", "radio.sh") + "].excute command:{sh " +
                                ItemFile("radio", "radio.sh") + "}"),
              1);
}

TEST_F(AProcessItem, ThatIsALibraryIsRunByTheLoader)
{
    daemon.Configure("global.server_submodule_dir", LOADER_DIRECTORY);
    collection.Bundle("radio").Library("libradio.so", "SleepForever", TEST_LIBRARY).Write();
    ASSERT_TRUE(daemon.StartServing());
    const pid_t pid = daemon.WaitForItem("radio", "libradio.so");
    EXPECT_EQ(ProcessOf::CommandLine(pid),
              (std::vector<std::string>{"dyn_lib_process_loader", "-f", ItemFile("radio", "libradio.so"), "-e",
                                        "SleepForever"}));
    EXPECT_EQ(daemon.CountInLog("load dyn lib[" LOADER_DIRECTORY "/dyn_lib_process_loader].excute "
                                "command:{dyn_lib_process_loader -f " +
                                ItemFile("radio", "libradio.so") + " -e SleepForever}"),
              1);
}

TEST_F(AProcessItem, ThatIsALibraryExitsWithItsFunctionsResult)
{
    daemon.Configure("global.server_submodule_dir", LOADER_DIRECTORY);
    collection.Bundle("radio").Library("libradio.so", "ReturnThirtyThree", TEST_LIBRARY).Write();
    daemon.Start();
    EXPECT_TRUE(daemon.WaitForLog("] does not need relaunch with exit status [33]."));
}

TEST_F(AProcessItem, ThatIsALibraryIsRunByTheLoaderInItsUsualPlace)
{
    collection.Bundle("radio").Library("libradio.so", "SleepForever", TEST_LIBRARY).Write();
    daemon.Start();
    EXPECT_TRUE(daemon.WaitForLog("load dyn lib[/usr/app/bin//dyn_lib_process_loader].excute command:"));
    EXPECT_TRUE(daemon.WaitForLog("execl fail.errno[2]."));
}

TEST_F(AProcessItem, ThatCannotBeExecutedIsNotRelaunched)
{
    collection.Bundle("radio").Item("missing").Item("forbidden", "no program").Item("x.SO").Item("x.bash").Write();
    std::filesystem::permissions(collection / "radio/bin/forbidden", std::filesystem::perms::owner_read);
    ASSERT_TRUE(daemon.StartServing());
    for (const char* item : {"missing", "forbidden", "x.SO", "x.bash"}) {
        const std::vector<pid_t> pids = daemon.PidsOf("radio", item);
        ASSERT_EQ(pids.size(), 1U) << item;
        const std::vector<std::string> messages = daemon.Messages(pids[0]);
        const std::string file = ItemFile("radio", item);
        EXPECT_EQ(messages.at(2), "execute binary[" + file + "].excute command:{" + item + "}");
        EXPECT_EQ(messages.at(3),
                  std::string("execl fail.errno[") + (item == std::string("forbidden") ? "13" : "2") + "].");
        EXPECT_TRUE(daemon.WaitForLog("radio." + std::string(item) + "[" + std::to_string(pids[0]) +
                                      "] does not need relaunch with exit status [1]."));
    }
    EXPECT_EQ(daemon.CountInLog("bundle[radio] state changing[Starting] -> [Active]"), 1);
}

TEST_F(AProcessItem, IsInTheGroupOfTheServerAndAChildOfIt)
{
    daemon.Configure("global.server_submodule_dir", LOADER_DIRECTORY);
    collection.Bundle("radio")
        .Copy("radiod", TEST_SLEEPER)
        .Item("radio.sh", Shell("while :; do sleep 1000; done"))
        .Library("libradio.so", "SleepForever", TEST_LIBRARY)
        .Write();
    collection.Bundle("tuner").Copy("tunerd", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    for (const auto& [bundle, item] : {std::pair("radio", "radiod"), std::pair("radio", "radio.sh"),
                                       std::pair("radio", "libradio.so"), std::pair("tuner", "tunerd")}) {
        const pid_t pid = daemon.WaitForItem(bundle, item);
        ASSERT_NE(pid, 0) << item;
        EXPECT_EQ(::getpgid(pid), daemon.Pid()) << item;
        EXPECT_EQ(ProcessOf::Status(pid, "PPid"), std::to_string(daemon.Pid())) << item;
    }
}

TEST_F(AProcessItem, InheritsNoDescriptorsOfTheServer)
{
    collection.Bundle("radio")
        .Copy("radiod", TEST_SLEEPER)
        .Install(Shell("ls -l /proc/self/fd > " + Note("script")))
        .Write();
    collection.Bundle("tuner").Item("tuner.sh", Shell("exec sleep 1000")).Write();
    staging.Bundle("video").Copy("videod", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    const UnixClient client(SERVICE_SOCKET); // items do not inherit a connection either
    ASSERT_TRUE(client.Ask(PacketOf(1, 0, ""), DaemonRunner::PATIENCE));
    MoveIn("video");
    const pid_t relaunched = daemon.WaitForItem("radio", "radiod");
    ASSERT_NE(relaunched, 0);
    ::kill(relaunched, SIGKILL);
    for (const pid_t pid : {daemon.WaitForItem("radio", "radiod", 2), daemon.WaitForItem("tuner", "tuner.sh"),
                            daemon.WaitForItem("video", "videod")}) {
        ASSERT_NE(pid, 0);
        const auto hasStandardOnesOnly = [pid] {
            const std::map<int, std::string> descriptors = ProcessOf::Descriptors(pid);
            return descriptors.size() == 3 && descriptors.rbegin()->first == 2;
        };
        // At first it still loads its own libraries.
        EXPECT_TRUE(Eventually(5s, hasStandardOnesOnly)) << ::testing::PrintToString(ProcessOf::Descriptors(pid));
    }
    // The script's "ls" has the three standard descriptors and the directory that it lists.
    EXPECT_EQ(Lines(ReadFile(Note("script"))).size(), 1U + 4U) << ReadFile(Note("script"));
}

TEST_F(AProcessItem, InheritsNoDescriptorsOfAConcurrentLaunch)
{
    Interpose("HOLD_AFTER", "2: parent process ready.notify child process[");
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Copy("tunerd", TEST_SLEEPER).Write();
    daemon.Start();
    const pid_t first = daemon.WaitForItem("radio", "radiod");
    ASSERT_NE(first, 0);
    // The second item's launch pauses while its pipe is open.
    ASSERT_TRUE(daemon.WaitForLog("parent process ready.notify child process[", 2));
    ::kill(first, SIGKILL);
    ASSERT_TRUE(daemon.WaitForLog("parent process ready.notify child process[", 3));
    const pid_t again = daemon.WaitForItem("radio", "radiod", 2);
    ASSERT_NE(again, 0);
    EXPECT_TRUE(Eventually(5s, [again] { return ProcessOf::Descriptors(again).size() == 3; }))
        << ::testing::PrintToString(ProcessOf::Descriptors(again));
}

TEST_F(AProcessItem, GetsTheDescriptorLimitWithWhichTheServerWasStarted)
{
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_max < 17000) {
        GTEST_SKIP() << "the limit cannot be raised far enough";
    }
    limit.rlim_cur = limit.rlim_max;
    daemon.SetPreparation([&limit] { ::setrlimit(RLIMIT_NOFILE, &limit); });
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    const auto limitOf = [](pid_t pid) {
        rlimit its{};
        ::prlimit(pid, RLIMIT_NOFILE, nullptr, &its);
        return std::pair(its.rlim_cur, its.rlim_max);
    };
    const std::pair<rlim_t, rlim_t> expected(limit.rlim_max, limit.rlim_max);
    EXPECT_LT(limitOf(daemon.Pid()).first, expected.first) << "the server keeps its own limit low";
    const pid_t pid = daemon.WaitForItem("radio", "radiod");
    EXPECT_EQ(limitOf(pid), expected);
    ::kill(pid, SIGKILL);
    EXPECT_EQ(limitOf(daemon.WaitForItem("radio", "radiod", 2)), expected);
}

TEST_F(AProcessItem, GetsTheEnvironmentOfTheServer)
{
    daemon.SetEnvironment("RADIO_REGION", "north");
    collection.Bundle("radio")
        .Item("radio.sh", Shell("echo $RADIO_REGION > " + Note("region") + "; exec sleep 1000"))
        .Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return ReadFile(Note("region")) == "north\n"; }));
}

TEST_P(TheServersSignalState, IsInheritedByItemsAndScripts)
{
    const std::string script = ReadFile(TEST_STATUS_WRITER);
    daemon.SetEnvironment("NOTES", notes.Path());
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Install(script).Uninstall(script).Write();
    staging.Bundle("video").Copy("videod", TEST_SLEEPER).Install(script).Write();
    ASSERT_TRUE(daemon.StartServing());
    ExpectSameOfScripts("install.sh", 1);
    MoveIn("video");
    const pid_t first = daemon.WaitForItem("radio", "radiod");
    ExpectSameOf(first, "launched at start-up");
    ::kill(first, SIGKILL);
    ExpectSameOf(daemon.WaitForItem("radio", "radiod", 2), "launched again by the monitor");
    ExpectSameOf(daemon.WaitForItem("video", "videod"), "launched by the watcher");
    ExpectSameOfScripts("install.sh", 2);
    EXPECT_EQ(RequestDelete("radio"), 200);
    ExpectSameOfScripts("uninstall.sh", 1);
}

INSTANTIATE_TEST_SUITE_P(Signals, TheServersSignalState,
                         ::testing::Values(SignalState{"Nothing", {}, {}},
                                           SignalState{"SigintIgnored", {}, {SIGINT, SIGQUIT}},
                                           SignalState{"SighupIgnoredAndSigusr1Blocked", {SIGUSR1}, {SIGHUP, SIGPIPE}},
                                           SignalState{"SigtermBlocked", {SIGTERM}, {}},
                                           SignalState{"SigchldIgnored", {}, {SIGCHLD}}),
                         [](const auto& state) { return std::string(state.param.name); });

TEST_F(AProcessItem, OfABundleThatWasAddedLaterDiesOfATerminationSignal)
{
    ASSERT_TRUE(daemon.StartServing());
    staging.Bundle("video").Copy("videod", TEST_SLEEPER).Write();
    MoveIn("video");
    const pid_t pid = daemon.WaitForItem("video", "videod");
    ASSERT_NE(pid, 0);
    for (const int signal : {SIGTERM, SIGQUIT, SIGPIPE}) {
        const std::vector<pid_t> launched = daemon.PidsOf("video", "videod");
        ::kill(launched.back(), signal);
        EXPECT_TRUE(daemon.WaitForLog("] abnormal termination, signal: " + std::to_string(signal) + "."));
        EXPECT_NE(daemon.WaitForItem("video", "videod", static_cast<int>(launched.size()) + 1), 0);
    }
}

TEST_F(AProcessItem, KeepsTheModeInWhichItsBundleWasLoaded)
{
    daemon.Configure("global.server_submodule_dir", LOADER_DIRECTORY);
    auto bundle = collection.Bundle("radio");
    bundle.Library("libradio.so", "SleepForever", TEST_LIBRARY).Write();
    ASSERT_TRUE(daemon.StartServing());
    const pid_t before = daemon.WaitForItem("radio", "libradio.so");
    ASSERT_NE(before, 0);
    bundle.ThreadMode();
    staging.Bundle("draft").ThreadMode().Name("radio").Library("libradio.so", "SleepForever").Write();
    std::filesystem::rename(staging / "draft/BundleManifest.ini", collection / "radio/BundleManifest.ini");
    ASSERT_TRUE(daemon.WaitForLog("bundle load mode ------> [1]"));
    EXPECT_NE(daemon.WaitForItem("radio", "libradio.so", 2), 0);
    EXPECT_EQ(daemon.CountInLog("activate start..."), 0);
    EXPECT_FALSE(ProcessOf::IsAlive(before));
}
