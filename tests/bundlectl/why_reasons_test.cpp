// bundlectl why: the reasons that exist only for a moment. A signal or the interposer halts the server, so that the
// moment lasts.
#include "bundlectl/verb_test.h"

#include "support/private_mnt.h"

#include <sys/mount.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace {

const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

class WhyReasons : public VerbTest {
public:
    /// Whether a bundle has a reason of that kind whose sentences have the part.
    ::testing::AssertionResult Gives(const std::string& bundle, const std::string& kind, const std::string& part)
    {
        std::vector<std::string> arguments = {"why", bundle, "--json"};
        arguments.insert(arguments.end(), places.begin(), places.end());
        const Ended ended = Run(arguments);
        m_outputs += ended.output;
        const std::size_t at = ended.output.find("{\"kind\":\"" + kind + "\"");
        const std::size_t end = ended.output.find("\"evidence\"", at);
        if (at != std::string::npos && Has(ended.output.substr(at, end - at), part)) {
            return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure() << "no " << kind << " with \"" << part << "\" in:\n"
                                             << ended.output << ended.errors;
    }

    /// From now on, the server does nothing. So the test's changes of files and processes stay.
    void HaltServer() const
    {
        daemon.Signal(SIGSTOP);
        EXPECT_TRUE(Eventually(std::chrono::seconds(20), [this] { return AreThreadsHalted(); }));
    }

    /// A thread that runs on another processor stops a moment after the signal.
    bool AreThreadsHalted() const
    {
        const std::filesystem::directory_iterator tasks("/proc/" + std::to_string(daemon.Pid()) + "/task");
        return std::all_of(begin(tasks), end(tasks), [](const std::filesystem::directory_entry& task) {
            return Has(ReadFile(task.path() / "status"), "State:\tT");
        });
    }

    /// A thread of the server halts after it has written a record with one of the texts.
    void HoldAfter(const std::vector<std::string>& texts)
    {
        std::string holds;
        for (const std::string& text : texts) {
            holds += "1000:" + text + "\n";
        }
        Interpose("HOLD_AFTER", holds);
    }

    void TearDown() override
    {
        if (!m_outputs.empty()) {
            EXPECT_TRUE(FollowsSchema(m_outputs));
        }
        daemon.Signal(SIGCONT);
        VerbTest::TearDown();
    }

    std::vector<std::string> places; ///< options for the places of log, configuration and collection

private:
    std::string m_outputs;
};

/// Two bytes of a program's header contain the number of its machine.
std::string ProgramOfAnotherMachine()
{
    constexpr std::size_t machine = 18;
    std::string program = ReadFile(TEST_SLEEPER);
    program[machine] = static_cast<char>(program[machine] ^ 0x7f);
    return program;
}

} // namespace

TEST_F(WhyReasons, SayWhatTheServerFoundWhereTheFilesAreInOrderNow)
{
    collection.BundleIn("refused").Manifest("[global]\nbundle_name = refused\n").Write();
    collection.Bundle("threads").ThreadMode().Item("tunerd").Write();
    collection.Bundle("lonely").Requires("later").Write();
    collection.Bundle("gone").Write();
    Serve();
    HaltServer();
    collection.Bundle("refused").Write();
    collection.Bundle("threads").Item("tunerd", Shell("exec sleep 1000")).Write();
    collection.Bundle("later").Write();
    std::filesystem::remove_all(collection / "gone");
    EXPECT_TRUE(Gives("refused", "refused", "Its files are in order now."));
    EXPECT_TRUE(Gives("threads", "start-failed", "Its start failed: "));
    EXPECT_TRUE(Gives("lonely", "resolve-failed", "What it requires was not complete: "));
    EXPECT_TRUE(Gives("later", "not-loaded", "The server has not taken its directory in."));
    EXPECT_TRUE(Gives("gone", "directory-gone", "Its directory " + collection / "gone" + " has gone."));
}

TEST_F(WhyReasons, SayWhatIsWrongWithABundleThatCameOrChanged)
{
    collection.Bundle("edited").Copy("tuner", TEST_SLEEPER).Write();
    Serve();
    staging.Bundle("early").Requires("late").Write();
    staging.BundleIn("short")
        .Manifest("[global]\nbundle_name = short\nbundle_load_mode = 0\n[a]\nitem_name = ab\n")
        .Write();
    MoveIn("early");
    MoveIn("short");
    ASSERT_TRUE(daemon.WaitForLog("load bundle[early] done."));
    ASSERT_TRUE(daemon.WaitForLog("failed to load bundle from ["));
    EXPECT_TRUE(Gives("short", "short-item-name", "The server does not start with it, with no bundle."));
    staging.Bundle("late").Write();
    MoveIn("late");
    WriteFile(collection / "edited/BundleManifest.ini", "broken");
    ASSERT_TRUE(daemon.WaitForLog("bundle[late] state changing[Starting] -> [Active]"));
    EXPECT_TRUE(Gives("early", "hot-start-failed", "what it requires may have come later."));
    ASSERT_TRUE(daemon.WaitForLog("update bundle[edited] failed."));
    EXPECT_TRUE(Gives("edited", "update-failed", "A change of its directory could not be taken in: "));
    ASSERT_TRUE(Eventually(std::chrono::seconds(20), [this] { // what comes within seconds counts as the update itself
        WriteFile(collection / "edited/BundleManifest.ini", "broken");
        return bool(Gives("edited", "changed", "Its directory has changed since the server took it in."));
    }));
}

TEST_F(WhyReasons, NameTheManifestThatKeepsTheServerFromStarting)
{
    collection.BundleIn("short")
        .Manifest("[global]\nbundle_name = short\nbundle_load_mode = 0\n[a]\nitem_name = ab\n")
        .Write();
    daemon.Start();
    ASSERT_EQ(daemon.WaitForEnd().value_or(ProcessEnd()).status, 70);
    places = {"--collection", collection.Path(), "--log", daemon.LogFile()};
    EXPECT_TRUE(Gives("short", "short-item-name", "The server does not start with it, with no bundle."));
    EXPECT_TRUE(Gives("short", "server-down", "No bundle server runs."));
}

TEST_F(WhyReasons, NameTheStepThatTheServerIsAt)
{
    HoldAfter({"bundle[stopping] state changing[Active] -> [Stopping]", "dying.tuner["});
    collection.Bundle("dying").Copy("tuner", TEST_SLEEPER).Write();
    collection.Bundle("stopping").Write();
    Serve();
    const pid_t tuner = daemon.WaitForItem("dying", "tuner");
    ASSERT_NE(tuner, 0);
    std::filesystem::remove_all(collection / "stopping");
    ASSERT_TRUE(daemon.WaitForLog("bundle[stopping] state changing[Active] -> [Stopping]"));
    EXPECT_TRUE(Gives("stopping", "in-progress", "It is being stopped, since "));
    ::kill(tuner, SIGABRT);
    ASSERT_TRUE(daemon.WaitForLog("dying.tuner[" + std::to_string(tuner) + "] abnormal termination"));
    EXPECT_TRUE(Gives("dying", "item-ended", " ago with SIGABRT"));
}

TEST_F(WhyReasons, SayThatTheServerRestartsABundleOrAnItem)
{
    HoldAfter({"bundle[radio] state changing[Stopping] -> [Resolved]", "relaunch dying.tuner..."});
    collection.Bundle("radio").Write();
    collection.Bundle("dying").Copy("tuner", TEST_SLEEPER).Write();
    Serve();
    ::kill(daemon.WaitForItem("dying", "tuner"), SIGABRT);
    ASSERT_TRUE(daemon.WaitForLog("relaunch dying.tuner..."));
    EXPECT_TRUE(Gives("dying", "item-ended", ", and is being run again."));
    staging.Bundle("radio").Requires("dying").Write();
    std::filesystem::copy_file(staging / "radio/BundleManifest.ini", collection / "radio/BundleManifest.ini",
                               std::filesystem::copy_options::overwrite_existing);
    ASSERT_TRUE(daemon.WaitForLog("bundle[radio] state changing[Stopping] -> [Resolved]"));
    EXPECT_TRUE(Gives("radio", "in-progress", "The server is at it."));
}

TEST_F(WhyReasons, SayThatACrashLoopCouldNotBeStopped)
{
    collection.Bundle("radio").Item("tuner.sh", Shell("kill -SEGV $$")).Write();
    Serve();
    ASSERT_TRUE(daemon.WaitForLog("radio.tuner.sh relaunch done.", 3));
    ASSERT_TRUE(Eventually(std::chrono::seconds(20), [] { return RequestDelete("radio") == 400; }));
    HaltServer();
    EXPECT_TRUE(Gives("radio", "stop-failed", "It could not be stopped: "));
    EXPECT_TRUE(Gives("radio", "crash-loop", "dies again and again"));
}

TEST_F(WhyReasons, SayWhatIsKnownOfAnItemWithoutAProcessOrAThread)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    collection.Bundle("threads").ThreadMode().Library("tuner.so", "EndThread", TEST_LIBRARY).Write();
    Serve();
    const pid_t tuner = daemon.WaitForItem("radio", "tuner");
    ASSERT_NE(tuner, 0);
    ASSERT_TRUE(daemon.WaitForLog("bundle[threads] dyn lib[tuner.so] activate start..."));
    EXPECT_TRUE(Eventually(std::chrono::seconds(10), [this] {
        return bool(Gives("threads", "thread-gone", "The item tuner.so has no thread."));
    }));
    HaltServer();
    ::kill(tuner, SIGKILL); // the server has not reaped it yet
    EXPECT_TRUE(Eventually(std::chrono::seconds(10),
                           [this] { return bool(Gives("radio", "item-unknown", "and the log tells of no end.")); }));
    const std::string log = ReadFile(daemon.LogFile());
    places = {"--log", Note("rotated")};
    WriteFile(Note("rotated"), log.substr(log.rfind('\n', log.size() - 2) + 1)); // the last record alone
    EXPECT_TRUE(Gives("radio", "item-unknown", "and the log does not tell why."));
    WriteFile(Note("rotated"), "");
    EXPECT_TRUE(Gives("radio", "log-unknown", "The log does not tell what the server has done with it."));
}

TEST_F(WhyReasons, NameAProgramThatWasReplacedAndAnItemThatRunsTwice)
{
    ServeAnItemTwice();
    EXPECT_TRUE(Gives("radio", "runs-twice", "The item tuner runs more than once: also as process "));
    HaltServer();
    std::filesystem::copy_file(collection / "radio/bin/tuner", Note("tuner"));
    std::filesystem::remove(collection / "radio/bin/tuner");
    std::filesystem::copy_file(Note("tuner"), collection / "radio/bin/tuner");
    EXPECT_TRUE(Gives("radio", "program-replaced", "The item tuner runs a program file that has been replaced since."));
}

TEST_F(WhyReasons, SayThatTheMonitorHasEnded)
{
    Interpose("FAIL", "waitpid:" + std::to_string(EINVAL) + ":1000:0");
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    Serve();
    ::kill(daemon.WaitForItem("radio", "tuner"), SIGKILL);
    ASSERT_TRUE(daemon.WaitForLog("waitpid fail, errno is"));
    EXPECT_TRUE(Gives("radio", "monitor-dead", "no item is run again from now on."));
}

TEST_F(WhyReasons, FindFaultsOfAProgramFile)
{
    collection.Bundle("link").Item("itemd").Write();
    std::filesystem::create_directories(collection / "link/bin");
    std::filesystem::create_symlink("nowhere", collection / "link/bin/itemd");
    collection.Bundle("folder").Item("itemd").Write();
    std::filesystem::create_directories(collection / "folder/bin/itemd");
    collection.Bundle("other").Item("itemd", ProgramOfAnotherMachine()).Write();
    collection.Bundle("needing").ThreadMode().Library("itemd.so", "Needing", NEEDING_LIBRARY).Write();
    Serve();
    ASSERT_TRUE(daemon.WaitForLog("does not need relaunch", 3));
    ASSERT_TRUE(daemon.WaitForLog("open dynamic lib["));
    EXPECT_TRUE(Gives("link", "file", "link/bin/itemd is a link that leads nowhere."));
    EXPECT_TRUE(Gives("folder", "file", "folder/bin/itemd is no regular file."));
    EXPECT_TRUE(Gives("other", "file", "other/bin/itemd is made for another kind of machine."));
    EXPECT_TRUE(Gives("needing", "file", "needs libraries that are not found: libabsent.so"));
    EXPECT_TRUE(Gives("needing", "thread-failed", "The item itemd.so failed: "));
}

TEST_F(WhyReasons, FindAFileSystemThatForbidsExecution)
{
    if (::mount("none", collection.Path().c_str(), "tmpfs", MS_NOEXEC, "size=1m") != 0) {
        GTEST_SKIP() << "nothing can be mounted: " << std::strerror(errno);
    }
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    Serve();
    ASSERT_TRUE(daemon.WaitForLog("does not need relaunch"));
    EXPECT_TRUE(Gives("radio", "file", "mounted \\\"noexec\\\"."));
    EXPECT_TRUE(Gives("radio", "execute-failed", "The item tuner could not be executed: Permission denied."));
    daemon.Stop(SIGKILL);
    ::umount2(collection.Path().c_str(), MNT_DETACH);
}
