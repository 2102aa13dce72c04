// The daemon as process 1 of a process namespace, as in a container without an init process. The kernel drops signals
// whose default action would end such a process.
#include "common/unique_fd.h"
#include "system/system_test.h"

#include <fcntl.h>
#include <sched.h>

#include <cerrno>
#include <csignal>
#include <cstring>

namespace {

using namespace std::chrono_literals;

/// The bound for "promptly": short for a user at a terminal, long enough for a busy machine.
constexpr auto PROMPTLY = 3s;
constexpr const char NO_SIGNALS[] = "0000000000000000";

/// The process ids in its log are those of the namespace.
class AServerThatIsProcessOne : public SystemTest {
protected:
    void SetUp() override
    {
        // The address sanitizer's look for leaks stops at a number that means nothing outside the namespace.
        daemon.SetEnvironment("ASAN_OPTIONS", "detect_leaks=0");
        // During its start-up process 1 ends by exit, beside threads that run.
        daemon.SetEnvironment("TSAN_OPTIONS", "halt_on_error=1:report_thread_leaks=0");
        ASSERT_TRUE(m_ownNamespace.IsOpen());
        if (::unshare(CLONE_NEWPID) != 0) { // the next child, and no other, is process 1
            GTEST_SKIP() << "no process namespace can be made: " << std::strerror(errno);
        }
    }

    /// Children of the test belong to its own namespace again: the address sanitizer makes one to look for leaks at the
    /// test's end.
    void TearDown() override
    {
        if (!IsSkipped()) {
            EXPECT_EQ(::setns(m_ownNamespace.Get(), CLONE_NEWPID), 0) << std::strerror(errno);
        }
    }

    void WriteManyItems() const
    {
        BundleBuilder radio = collection.Bundle("radio");
        for (const char* item : {"one", "two", "three", "four", "five", "six", "seven", "eight", "nine", "ten"}) {
            radio.Copy(item, TEST_SLEEPER);
        }
        radio.Write();
    }

    void ExpectEndWithStatus(int status)
    {
        const auto end = daemon.WaitForEnd(PROMPTLY);
        ASSERT_TRUE(end) << "the signal is lost";
        EXPECT_EQ(end->status, status);
        EXPECT_TRUE(daemon.Descendants().empty());
    }

private:
    const Common::UniqueFd m_ownNamespace{::open("/proc/self/ns/pid", O_RDONLY | O_CLOEXEC)};
};

class AServerThatIsProcessOneAndGetsASignal : public AServerThatIsProcessOne,
                                              public ::testing::WithParamInterface<int> {};

} // namespace

TEST_P(AServerThatIsProcessOneAndGetsASignal, EndsDuringItsStartUpWithTheStatusThatShellsReport)
{
    WriteManyItems();
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog("execute binary["));
    daemon.Signal(GetParam());
    ExpectEndWithStatus(128 + GetParam());
    EXPECT_EQ(daemon.CountInLog("StartAllBundles done."), 0);
}

TEST_P(AServerThatIsProcessOneAndGetsASignal, EndsWithSuccessOnceItServes)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(RequestDelete("not-there"), 404);
    daemon.Signal(GetParam());
    ExpectEndWithStatus(0);
    EXPECT_FALSE(Exists(SERVICE_SOCKET));
}
INSTANTIATE_TEST_SUITE_P(Is, AServerThatIsProcessOneAndGetsASignal, ::testing::Values(SIGINT, SIGTERM, SIGQUIT),
                         [](const auto& signal) { return "Signal" + std::to_string(signal.param); });

TEST_F(AServerThatIsProcessOne, DoesNotWaitForAScriptOfTheStartUp)
{
    collection.Bundle("radio").Install(Shell(": > " + Note("begun") + "; exec sleep 1000")).Write();
    daemon.Start();
    ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return Exists(Note("begun")); }));
    daemon.Signal(SIGTERM);
    ExpectEndWithStatus(128 + SIGTERM);
}

TEST_F(AServerThatIsProcessOne, BlocksNoSignalOfItsScriptsAndItems)
{
    const auto note = [this](const std::string& name) {
        return "grep SigBlk /proc/self/status > " + Note(name + ".new") + " && mv " + Note(name + ".new") + " " +
               Note(name);
    };
    collection.Bundle("radio")
        .Install(Shell(note("script")))
        .Item("radio.sh", Shell(note("item") + "\nexec sleep 1000"))
        .Write();
    ASSERT_TRUE(daemon.StartServing());
    ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return Exists(Note("item")); }));
    EXPECT_NE(ReadFile(Note("script")).find(NO_SIGNALS), std::string::npos) << ReadFile(Note("script"));
    EXPECT_NE(ReadFile(Note("item")).find(NO_SIGNALS), std::string::npos) << ReadFile(Note("item"));
}

TEST_F(AServerThatIsProcessOne, HasNoSignalThreadOnceItServes)
{
    ASSERT_TRUE(daemon.StartServing());
    for (const std::string& name : daemon.ThreadNames()) {
        EXPECT_NE(name, "bundle_signals");
    }
}

TEST_F(AServerThatIsProcessOne, ReportsWhyItDoesNotStart)
{
    daemon.Configure("global.bundle_collection_dir", "");
    daemon.Start();
    const auto end = daemon.WaitForEnd();
    ASSERT_TRUE(end);
    EXPECT_EQ(end->status, 70);
    EXPECT_NE(daemon.Errors().find("bundle_collection_dir"), std::string::npos) << daemon.Errors();
}

TEST_F(AServerThatIsProcessOne, PrintsItsHelp)
{
    daemon.SetArguments({"--help"});
    daemon.Start();
    const auto end = daemon.WaitForEnd();
    ASSERT_TRUE(end);
    EXPECT_EQ(end->status, 0);
    EXPECT_NE(daemon.Output().find("a bundles management platform."), std::string::npos);
}

TEST_F(AServerThatIsProcessOne, HandlesASignalOfTheStartUpInTheLoopIfItHasNoSignalThread)
{
    Interpose("FAIL", "pthread_create:11:1:0");
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog("execute binary["));
    EXPECT_EQ(daemon.CountInLog("no thread for the signals of the start-up"), 1);
    daemon.Signal(SIGTERM);
    const auto end = daemon.WaitForEnd();
    ASSERT_TRUE(end);
    EXPECT_EQ(end->status, 0);
}
