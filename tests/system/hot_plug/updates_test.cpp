// Updates of a bundle, and changes that are made while a handler runs.

#include "system/hot_plug/hot_plug.h"

#include <fcntl.h>

#include <cstdio>
#include <filesystem>
#include <string>

namespace {

namespace fs = std::filesystem;

class AnUpdate : public HotPlug {};

/// The thread that handles the bundle "radio" pauses for a second after it has written a record.
class AChangeThatIsMade : public HotPlug {
protected:
    void HoldAfter(const std::string& record)
    {
        daemon.Stop();
        Interpose("HOLD_AFTER", "1:" + record);
        ASSERT_TRUE(daemon.StartServing());
    }
    void Change() const { RunShell("echo '; changed' >> \"$COLLECTION\"/radio/BundleManifest.ini"); }
};

} // namespace

TEST_F(AnUpdate, StartsTheProgramThatReplacesTheOld)
{
    staging.Bundle("radio").Item("radiod", Shell(": > " + Note("old") + "; exec sleep 1000")).Write();
    MoveIn("radio");
    ASSERT_TRUE(IsStarted("radio"));
    const pid_t old = daemon.WaitForItem("radio", "radiod");
    WriteProgram(staging / "radiod", Shell(": > " + Note("new") + "; exec sleep 1000"));
    fs::rename(staging / "radiod", In("radio") + "/bin/radiod");
    ASSERT_TRUE(IsStarted("radio", 2));
    EXPECT_NE(daemon.WaitForItem("radio", "radiod", 2), 0);
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return Exists(Note("new")); }));
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [old] { return !ProcessOf::IsAlive(old); }));
    EXPECT_TRUE(daemon.WaitForLog("normal stop radio.radiod..."));
}

TEST_F(AnUpdate, FollowsADirectoryThatReplacesTheOld)
{
    staging.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    MoveIn("radio");
    ASSERT_TRUE(IsStarted("radio"));
    const pid_t old = daemon.WaitForItem("radio", "radiod");
    staging.Bundle("radio").Copy("newd", TEST_SLEEPER).Write();
    // In one step, so that no scan sees the directory missing.
    ASSERT_EQ(::renameat2(AT_FDCWD, (staging / "radio").c_str(), AT_FDCWD, In("radio").c_str(), RENAME_EXCHANGE), 0);
    ASSERT_TRUE(IsStarted("radio", 2));
    EXPECT_NE(daemon.WaitForItem("radio", "newd"), 0);
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [old] { return !ProcessOf::IsAlive(old); }));
    EXPECT_EQ(Modified(), 1);
}

TEST_F(AnUpdate, IsNotMadeWhenItemsWriteToOtherFolders)
{
    staging.Bundle("radio")
        .Item("radiod", Shell("cd \"$(dirname \"$0\")\"/.. && while :; do date >> log/today; date > data/$$; "
                              "rm data/$$; sleep 0.1; done"))
        .Write();
    fs::create_directory(staging / "radio/log");
    fs::create_directory(staging / "radio/data");
    MoveIn("radio");
    ASSERT_TRUE(IsStarted("radio"));
    ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return Exists(In("radio") + "/log/today"); }));
    PassScans(5);
    EXPECT_EQ(Modified(), 0);
    EXPECT_EQ(Added(), 1);
}

TEST_F(AnUpdate, IsNotMadeForAProgramThatIsOverwrittenInPlaceUntilTheDirectoryIsTouched)
{
    staging.Bundle("radio").Item("radiod.sh", Shell("exec sleep 1000")).Write();
    MoveIn("radio");
    ASSERT_TRUE(IsStarted("radio"));
    WriteFile(In("radio") + "/bin/radiod.sh", Shell(": > " + Note("new") + "; exec sleep 1000"));
    PassScans();
    EXPECT_EQ(Modified(), 0);
    RunShell("touch \"$COLLECTION\"/radio");
    ASSERT_TRUE(IsStarted("radio", 2));
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return Exists(Note("new")); }));
}

TEST_F(AnUpdate, IsMadeForAChangeDuringAnotherUpdate)
{
    staging.Bundle("radio").Write();
    MoveIn("radio");
    ASSERT_TRUE(IsStarted("radio"));
    for (int i = 0; i < 3; ++i) {
        RunShell("echo '; one' >> \"$COLLECTION\"/radio/BundleManifest.ini");
        ASSERT_TRUE(daemon.WaitForLog("stop bundle[radio]...", 2 * i + 1));
        RunShell("echo '; two' >> \"$COLLECTION\"/radio/BundleManifest.ini");
        ASSERT_TRUE(IsStarted("radio", 2 * i + 3));
    }
    PassScans();
    EXPECT_EQ(Modified(), 6);
    EXPECT_EQ(daemon.CountInLog("update bundle["), 0);
}

TEST_F(AnUpdate, IsMadeForAChangeDuringTheStartOfTheBundle)
{
    staging.Bundle("radio").Copy("one", TEST_SLEEPER).Copy("two", TEST_SLEEPER).Write();
    MoveIn("radio");
    ASSERT_TRUE(daemon.WaitForLog("start bundle[radio] activator..."));
    RunShell("echo '; one' >> \"$COLLECTION\"/radio/BundleManifest.ini");
    ASSERT_TRUE(IsStarted("radio", 2));
    PassScans();
    EXPECT_EQ(Modified(), 1);
}

TEST_F(AChangeThatIsMade, JustAfterTheBundleIsLoadedUpdatesIt)
{
    HoldAfter("load bundle[radio] success.");
    staging.Bundle("radio").Write();
    MoveIn("radio");
    ASSERT_TRUE(daemon.WaitForLog("load bundle[radio] success."));
    Change();
    EXPECT_TRUE(IsStarted("radio", 2));
    EXPECT_EQ(Modified(), 1);
}

TEST_F(AChangeThatIsMade, JustAfterTheManifestIsReadUpdatesTheBundleAgain)
{
    HoldAfter("bundle load mode ------> [0]");
    staging.Bundle("radio").Write();
    MoveIn("radio");
    ASSERT_TRUE(IsStarted("radio"));
    Change();
    ASSERT_TRUE(daemon.WaitForLog("bundle load mode ------> [0]", 2));
    Change();
    EXPECT_TRUE(IsStarted("radio", 3));
    EXPECT_EQ(Modified(), 2);
}

TEST_F(AChangeThatIsMade, JustAfterTheBundleCouldNotBeLoadedLoadsIt)
{
    HoldAfter("failed to load bundle from [" + In("radio") + "].");
    fs::create_directories(In("radio") + "/bin");
    ASSERT_TRUE(daemon.WaitForLog("failed to load bundle from [" + In("radio") + "]."));
    collection.Bundle("radio").Write();
    EXPECT_TRUE(IsStarted("radio"));
}

TEST_F(AChangeThatIsMade, WhileTheBundleFailsToStartRetriesIt)
{
    HoldAfter("resolve bundle[radio] dependencies...");
    staging.Bundle("radio").Requires("tuner").Write();
    MoveIn("radio");
    ASSERT_TRUE(daemon.WaitForLog("resolve bundle[radio] dependencies..."));
    collection.Bundle("radio").Write();
    EXPECT_TRUE(IsStarted("radio"));
}
