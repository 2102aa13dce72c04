// Directories that are removed slowly, by a request or by hand, or that cannot be removed. Removals that the server
// can only handle later.

#include "system/hot_plug/hot_plug.h"

#include <cstdlib>
#include <filesystem>
#include <future>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

/// The daemon finds the test's "rm" before the system's.
class ADeletionByRequest : public HotPlug {
protected:
    /// Starts the daemon with this command in place of "rm -rf PATH". The command gets PATH as "$2".
    void RemoveBy(const std::string& command)
    {
        daemon.Stop();
        fs::create_directory(tools.Path() / "bin");
        WriteProgram(tools / "bin/rm", "#!/bin/sh\n" + command + "\n");
        daemon.SetEnvironment("PATH", (tools / "bin") + ":" + std::getenv("PATH"));
        collection.Bundle("radio").Item("radio.sh", Shell("exec sleep 1000")).Write();
        fs::create_directory(In("radio") + "/data");
        WriteFile(In("radio") + "/data/stations", "one\n");
        ASSERT_TRUE(daemon.StartServing());
        ASSERT_TRUE(IsStarted("radio"));
    }

    /// Whether the rest of the bundle has raised no event.
    testing::AssertionResult IsLeftAlone()
    {
        PassScans(4);
        if (Added() == 0 && Modified() == 0 && daemon.CountInLog("load bundle[radio] success.") == 1) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure() << "added " << Added() << ", modified " << Modified();
    }

    TemporaryDirectory tools;
};

/// A directory is removed step by step, with a scan between the steps.
class ASlowRemoval : public HotPlug {};

/// An item of the bundle ends at once and is relaunched, which takes a second each time, until it is told to rest. It
/// is a program and no ".sh" script, so it cannot be executed once its file is gone. Then it rests too.
class ARemovalDuringARelaunch : public HotPlug {
protected:
    const std::string relaunching = "need relaunch and now radio.radiod is relaunching ...";

    void SetUp() override
    {
        HotPlug::SetUp();
        staging.Bundle("radio").Item("radiod", Shell("[ -e " + Note("rest") + " ] && exec sleep 1000\nexit 2")).Write();
        MoveIn("radio");
        ASSERT_TRUE(daemon.WaitForLog(relaunching, 2));
    }
};

} // namespace

TEST_F(ADeletionByRequest, IsNoChangeWhileItRuns)
{
    RemoveBy("/bin/rm -rf \"$2\"/bin\n: > " + Note("begun") + "\nuntil [ -e " + Note("go") +
             " ]; do sleep 0.05; done\nexec /bin/rm \"$@\"");
    auto reply = std::async(std::launch::async, [] { return RequestDelete("radio"); });
    ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return Exists(Note("begun")); }));
    EXPECT_TRUE(IsLeftAlone());
    RunShell("rm \"$COLLECTION\"/radio/BundleManifest.ini");
    EXPECT_TRUE(IsLeftAlone());
    WriteFile(Note("go"), "");
    EXPECT_EQ(reply.get(), 200);
    EXPECT_FALSE(Exists(In("radio")));
    EXPECT_TRUE(daemon.WaitForLog("find bundle[" + In("radio") + "] fail."));
    EXPECT_TRUE(IsLeftAlone());
    EXPECT_EQ(Removed(), 1);
}

TEST_F(ADeletionByRequest, IgnoresEntriesThatItCouldNotRemove)
{
    RemoveBy("/bin/rm -rf \"$2\"/bin\nexit 1");
    EXPECT_EQ(RequestDelete("radio"), 200);
    EXPECT_TRUE(IsLeftAlone());
    RunShell("touch \"$COLLECTION\"/radio; echo ';' >> \"$COLLECTION\"/radio/BundleManifest.ini");
    EXPECT_TRUE(IsLeftAlone());
    EXPECT_TRUE(IsUnknown("radio"));
    RunShell("rm -r \"$COLLECTION\"/radio");
    EXPECT_TRUE(daemon.WaitForLog("find bundle[" + In("radio") + "] fail."));
    staging.Bundle("radio").Write();
    MoveIn("radio");
    EXPECT_TRUE(IsStarted("radio", 2));
}

TEST_F(ADeletionByRequest, LeavesARestThatIsLoadedAfterItWasMovedOutAndBackIn)
{
    RemoveBy("/bin/rm -rf \"$2\"/data\nexit 1");
    EXPECT_EQ(RequestDelete("radio"), 200);
    EXPECT_TRUE(IsLeftAlone());
    RunShell("mv \"$COLLECTION\"/radio \"$STAGING\"/");
    EXPECT_TRUE(daemon.WaitForLog("find bundle[" + In("radio") + "] fail."));
    MoveIn("radio");
    EXPECT_TRUE(IsStarted("radio", 2));
}

// The file system may reuse the inode number of a removed directory for a new one.
TEST_F(ADeletionByRequest, LetsAnotherDirectoryReplaceTheRest)
{
    RemoveBy("/bin/rm -rf \"$2\"/bin\nexit 1");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(RequestDelete("radio"), 200);
        PassScans();
        staging.Bundle("radio").Write();
        RunShell("rm -r \"$COLLECTION\"/radio && cp -r \"$STAGING\"/radio \"$COLLECTION\"/");
        ASSERT_TRUE(IsStarted("radio", i + 2));
    }
}

TEST_F(ADeletionByRequest, ThatFailsBeforeAnythingIsRemovedLeavesTheBundleFollowed)
{
    daemon.Stop();
    Interpose("REFUSE_FORK_WHEN", Note("refuse"));
    collection.Bundle("radio").Write();
    ASSERT_TRUE(daemon.StartServing());
    WriteFile(Note("refuse"), "");
    EXPECT_EQ(RequestDelete("radio"), 400);
    fs::remove(Note("refuse"));
    RunShell("touch \"$COLLECTION\"/radio");
    EXPECT_TRUE(IsStarted("radio", 2));
}

TEST_F(ASlowRemoval, RaisesOneRemovalAndNoOtherEvent)
{
    staging.Bundle("radio")
        .Item("radio.sh", Shell("exec sleep 1000"))
        .Item("tuner.sh", Shell("exec sleep 1000"))
        .Install(Shell("exit 0"))
        .Update(Shell(": > " + Note("updated")))
        .Write();
    fs::create_directory(staging / "radio/data");
    for (const char* const name : {"one", "two", "three"}) {
        WriteFile(staging / "radio/data/" + name, "");
    }
    MoveIn("radio");
    ASSERT_TRUE(IsStarted("radio"));
    PassScans();
    for (const char* const name : {"data/one", "bin/radio.sh", "bin/tuner.sh", "bin", "data/two", "BundleManifest.ini",
                                   "script/install.sh", "script/update.sh", "script", "data/three", "data"}) {
        ASSERT_TRUE(fs::remove(In("radio") + "/" + name)) << name;
        PassScans(1);
    }
    fs::remove(In("radio"));
    EXPECT_TRUE(daemon.WaitForLog("unload bundle done."));
    PassScans();
    EXPECT_EQ(Modified(), 0);
    EXPECT_EQ(Removed(), 1);
    EXPECT_FALSE(Exists(Note("updated")));
    EXPECT_TRUE(IsUnknown("radio"));
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return daemon.Descendants().empty(); }));
}

TEST_F(ASlowRemoval, ThatStopsHalfwayIsAChange)
{
    staging.Bundle("radio").Item("radio.sh", Shell("exec sleep 1000")).Update(Shell("exit 0")).Write();
    MoveIn("radio");
    ASSERT_TRUE(IsStarted("radio"));
    PassScans();
    fs::remove_all(In("radio") + "/script");
    EXPECT_TRUE(IsStarted("radio", 2));
    PassScans();
    EXPECT_EQ(Modified(), 1);
}

TEST_F(ARemovalDuringARelaunch, IsTriedAgainUntilTheBundleIsUnloaded)
{
    RunShell("mv \"$COLLECTION\"/radio \"$STAGING\"/");
    EXPECT_TRUE(daemon.WaitForLog("unload bundle done."));
    EXPECT_TRUE(IsUnknown("radio"));
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return daemon.Descendants().empty(); }));
    PassScans();
    const int failed = daemon.CountInLog("uninstalling bundle[radio] failed.");
    EXPECT_EQ(Removed(), failed + 1);
    if (failed == 0) {
        GTEST_SKIP() << "this machine is too slow: the removal came between two relaunches";
    }
}

TEST_F(ARemovalDuringARelaunch, DoesNotLoseARenamedBundle)
{
    RunShell("mv \"$COLLECTION\"/radio \"$COLLECTION\"/opera");
    WriteFile(Note("rest"), "");
    EXPECT_TRUE(daemon.WaitForLog("load bundle[radio] success.", 2));
    EXPECT_TRUE(IsStarted("radio", 2));
    EXPECT_NE(daemon.WaitForItem("opera", "radiod"), 0);
    EXPECT_EQ(RequestDelete("radio"), 200);
    EXPECT_FALSE(Exists(In("opera")));
}
