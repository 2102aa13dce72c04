// What the handlers do, record by record, and what happens to changes that come while they are at work.

#include "system/hot_plug/hot_plug.h"

#include <fcntl.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Records = std::vector<std::string>;

class TheRecords : public HotPlug {};
class AnUpdate : public HotPlug {};
class ASlowCopy : public HotPlug {};

/// The thread that deals with the bundle "radio" stays for a second where it has written that record.
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

class TheCollection : public HotPlug {};
class SeveralBundles : public HotPlug {};

void Append(const std::string& path, const std::string& text)
{
    std::ofstream file(path, std::ios::binary | std::ios::app);
    file << text;
}

/// A program in pieces that make no program one by one, written as a slow link would: a piece, a pause, the next.
class SlowWriter {
public:
    SlowWriter(std::string directory, std::string text, std::chrono::milliseconds pause)
        : m_thread([this, directory = std::move(directory), text = std::move(text), pause] {
              fs::create_directories(directory + "/bin");
              const std::string program = directory + "/bin/radiod";
              WriteFile(program, "");
              fs::permissions(program, fs::perms::owner_all);
              WriteFile(directory + "/BundleManifest.ini",
                        "[global]\nbundle_name = radio\nbundle_load_mode = 0\n[item]\nitem_name = radiod\n");
              for (const char piece : text) {
                  Append(program, std::string(1, piece));
                  std::this_thread::sleep_for(pause); // what is tested is a writer that takes its time
              }
              isDone = true;
          })
    {}
    ~SlowWriter() { m_thread.join(); }
    SlowWriter(const SlowWriter&) = delete;
    SlowWriter& operator=(const SlowWriter&) = delete;

    std::atomic<bool> isDone{false};

private:
    std::thread m_thread;
};

} // namespace

TEST_F(TheRecords, OfABundleThatIsAddedAreWrittenInOrder)
{
    staging.Bundle("radio").Install(Shell(": > " + Note("installed"))).Write();
    for (int i = 1; i <= 3; ++i) {
        RunShell("cp -r \"$STAGING\"/radio \"$STAGING\"/copy");
        NewRecords();
        RunShell("mv \"$STAGING\"/copy \"$COLLECTION\"/radio");
        ASSERT_TRUE(daemon.WaitForLog("start bundle done.", i));
        const std::string install = "run script[" + In("radio") + "/./script/install.sh]";
        EXPECT_EQ(NewRecords(), (Records{"INFO dir item add event happen.",
                                         "INFO add a new bundle dir.",
                                         "INFO load bundle from [" + In("radio") + "]...",
                                         "INFO =================bundle info=================",
                                         "INFO bundle name ------> [radio]",
                                         "INFO bundle load mode ------> [0]",
                                         "INFO ==================================================",
                                         "INFO " + install + "...",
                                         "INFO " + install + " done.",
                                         "INFO load bundle[radio] success.",
                                         "INFO load bundle[radio] done.",
                                         "INFO resolve bundle[radio]...",
                                         "INFO resolve bundle[radio] dependencies...",
                                         "INFO resolve bundle dependencies done.",
                                         "INFO bundle[radio] state changing[Installed] -> [Resolved]",
                                         "INFO resolve bundle done.",
                                         "INFO start bundle[radio]...",
                                         "INFO bundle[radio] state changing[Resolved] -> [Starting]",
                                         "INFO start bundle[radio] dependencies...",
                                         "INFO start bundle dependencies done.",
                                         "INFO start bundle[radio] activator...",
                                         "INFO start bundle[radio] activator done.",
                                         "INFO bundle[radio] state changing[Starting] -> [Active]",
                                         "INFO start bundle done."}));
        EXPECT_TRUE(Exists(Note("installed")));
        fs::remove_all(In("radio"));
        ASSERT_TRUE(daemon.WaitForLog("unload bundle done.", i));
    }
}

TEST_F(TheRecords, OfABundleThatIsRemovedAreWrittenInOrder)
{
    staging.Bundle("radio").Uninstall(Shell(": > " + Note("uninstalled"))).Write();
    for (int i = 1; i <= 3; ++i) {
        MoveIn("radio");
        ASSERT_TRUE(daemon.WaitForLog("start bundle done.", i));
        NewRecords();
        RunShell("mv \"$COLLECTION\"/radio \"$STAGING\"/");
        ASSERT_TRUE(daemon.WaitForLog("unload bundle done.", i));
        EXPECT_EQ(
            NewRecords(),
            (Records{"INFO dir item remove event happen.", "INFO remove a bundle dir.",
                     "INFO find bundle[" + In("radio") + "]...", "INFO find bundle done.", "INFO stop bundle[radio]...",
                     "INFO bundle[radio] state changing[Active] -> [Stopping]", "INFO stop bundle[radio] activator...",
                     "ERROR bundle process already exit.", "INFO stop bundle[radio] activator Done.",
                     "INFO bundle[radio] state changing[Stopping] -> [Resolved]", "INFO stop bundle done.",
                     "INFO unload bundle[radio]...", "INFO unload bundle done."}));
    }
    // It has gone with the directory.
    EXPECT_FALSE(Exists(Note("uninstalled")));
}

TEST_F(TheRecords, OfABundleThatIsModifiedAreWrittenInOrder)
{
    staging.Bundle("radio").Update(Shell(": > " + Note("updated"))).Write();
    MoveIn("radio");
    ASSERT_TRUE(IsStarted("radio"));
    for (int i = 1; i <= 3; ++i) {
        NewRecords();
        RunShell("sed -i 's/$/ /' \"$COLLECTION\"/radio/BundleManifest.ini");
        ASSERT_TRUE(daemon.WaitForLog("start bundle done.", i + 1));
        const std::string update = "run script[" + In("radio") + "/./script/update.sh]";
        EXPECT_EQ(NewRecords(), (Records{"INFO dir item modified event happen.",
                                         "INFO update a bundle dir.",
                                         "INFO find bundle[" + In("radio") + "]...",
                                         "INFO find bundle done.",
                                         "INFO =================bundle info=================",
                                         "INFO bundle name ------> [radio]",
                                         "INFO bundle load mode ------> [0]",
                                         "INFO ==================================================",
                                         "INFO " + update + "...",
                                         "INFO " + update + " done.",
                                         "INFO stop bundle[radio]...",
                                         "INFO bundle[radio] state changing[Active] -> [Stopping]",
                                         "INFO stop bundle[radio] activator...",
                                         "ERROR bundle process already exit.",
                                         "INFO stop bundle[radio] activator Done.",
                                         "INFO bundle[radio] state changing[Stopping] -> [Resolved]",
                                         "INFO stop bundle done.",
                                         "INFO start bundle[radio]...",
                                         "INFO bundle[radio] state changing[Resolved] -> [Starting]",
                                         "INFO start bundle[radio] dependencies...",
                                         "INFO start bundle dependencies done.",
                                         "INFO start bundle[radio] activator...",
                                         "INFO start bundle[radio] activator done.",
                                         "INFO bundle[radio] state changing[Starting] -> [Active]",
                                         "INFO start bundle done."}));
    }
    EXPECT_TRUE(Exists(Note("updated")));
}

TEST_F(AnUpdate, StartsTheProgramThatHasReplacedTheOld)
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

TEST_F(AnUpdate, TakesADirectoryThatHasReplacedTheOld)
{
    staging.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    MoveIn("radio");
    ASSERT_TRUE(IsStarted("radio"));
    const pid_t old = daemon.WaitForItem("radio", "radiod");
    staging.Bundle("radio").Copy("newd", TEST_SLEEPER).Write();
    // In one step, and so between two scans.
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

TEST_F(AnUpdate, FollowsForAChangeThatIsMadeWhileOneIsUnderWay)
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

TEST_F(AnUpdate, FollowsForAChangeThatIsMadeWhileTheBundleIsStarted)
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

TEST_F(ASlowCopy, EndsInABundleThatRunsAndIsAddedOnce)
{
    const std::string text = Shell(": > " + Note("whole") + "; exec sleep 1000");
    const SlowWriter writer(In("radio"), text, 5000ms / text.size());
    ASSERT_TRUE(IsStarted("radio"));
    EXPECT_TRUE(writer.isDone);
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return Exists(Note("whole")); }));
    PassScans();
    EXPECT_EQ(Added(), 1);
    EXPECT_EQ(Modified(), 0);
    EXPECT_EQ(daemon.CountInLog("failed to load"), 0);
}

// It is taken for complete when it is not, fails to load, and is offered again when it goes on.
TEST_F(ASlowCopy, EndsInABundleThatRunsWhenItPausesForLongerThanAScan)
{
    fs::create_directories(In("radio") + "/bin");
    ASSERT_TRUE(daemon.WaitForLog("failed to load bundle from [" + In("radio") + "]."));
    WriteProgram(In("radio") + "/bin/radiod", Shell("exec sleep 1000"));
    ASSERT_TRUE(daemon.WaitForLog("failed to load bundle from [" + In("radio") + "].", 2));
    collection.Bundle("radio").Item("radiod").Write();
    EXPECT_TRUE(IsStarted("radio"));
    EXPECT_NE(daemon.WaitForItem("radio", "radiod"), 0);
}

// Moved in, it is loaded after the scan that sees it and the second that the handler waits: no scan later.
TEST_F(TheCollection, IsScannedOnceASecondAndHandledASecondLater)
{
    staging.Bundle("radio").Write();
    const auto start = std::chrono::steady_clock::now();
    MoveIn("radio");
    ASSERT_TRUE(IsStarted("radio"));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1s);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 15s);
}

TEST_F(TheCollection, MayBeRemovedAndReturn)
{
    staging.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    MoveIn("radio");
    ASSERT_TRUE(IsStarted("radio"));
    const pid_t item = daemon.WaitForItem("radio", "radiod");
    const std::string away = staging / "away";
    for (int i = 1; i <= 3; ++i) {
        fs::rename(collection.Path(), away);
        EXPECT_TRUE(daemon.WaitForLog("bundle collection dir[" + collection.Path() +
                                          "/] can not be read: No such file or directory. Its bundles stay as they are "
                                          "until it is back.",
                                      i));
        fs::rename(away, collection.Path());
        EXPECT_TRUE(daemon.WaitForLog("bundle collection dir[" + collection.Path() + "/] can be read again.", i));
        EXPECT_EQ(daemon.CountInLog("can not be read"), i);
    }
    PassScans();
    EXPECT_TRUE(ProcessOf::IsAlive(item));
    EXPECT_EQ(Added(), 1);
    EXPECT_EQ(Modified(), 0);
    EXPECT_EQ(Removed(), 0);
}

TEST_F(SeveralBundles, ThatAreAddedTogetherAreStartedTheRequiredFirst)
{
    staging.Bundle("tuner").Write();
    staging.Bundle("radio").Requires("tuner").Write();
    staging.Bundle("alarm").Requires("radio").Requires("tuner").Write();
    for (const char* const name : {"tuner", "radio", "alarm"}) {
        MoveIn(name);
        // The kernel's clock goes by ticks of a few milliseconds.
        const auto moved = std::chrono::steady_clock::now();
        Eventually(1s, [moved] { return std::chrono::steady_clock::now() - moved > 20ms; });
    }
    for (const char* const name : {"tuner", "radio", "alarm"}) {
        EXPECT_TRUE(IsStarted(name));
    }
}

TEST_F(SeveralBundles, AreAllLoaded)
{
    for (int i = 10; i < 22; ++i) {
        staging.Bundle("b" + std::to_string(i)).Write();
    }
    RunShell("mv \"$STAGING\"/b* \"$COLLECTION\"/");
    for (int i = 10; i < 22; ++i) {
        EXPECT_TRUE(IsStarted("b" + std::to_string(i)));
    }
    RunShell("rm -rf \"$COLLECTION\"/b*");
    EXPECT_TRUE(daemon.WaitForLog("unload bundle done.", 12));
    EXPECT_EQ(Added(), 12);
    EXPECT_EQ(Removed(), 12);
}

TEST_F(SeveralBundles, AreRenamedByRemovalAndThenAddition)
{
    staging.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    MoveIn("radio");
    ASSERT_TRUE(IsStarted("radio"));
    std::string from = "radio";
    int launches = 1;
    for (const char* const to : {"opera", "zulu", "alpha"}) {
        fs::rename(In(from), In(to));
        ASSERT_TRUE(IsStarted("radio", ++launches));
        EXPECT_NE(daemon.WaitForItem(to, "radiod"), 0);
        from = to;
    }
    EXPECT_EQ(daemon.CountInLog("already exists"), 0);
    EXPECT_EQ(Removed(), 3);
    EXPECT_EQ(Added(), 4);
}

TEST_F(SeveralBundles, GiveWayToAFileOfTheSameNameAndComeBack)
{
    staging.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    for (int i = 1; i <= 3; ++i) {
        MoveIn("radio");
        ASSERT_TRUE(IsStarted("radio", i));
        fs::rename(In("radio"), staging / "radio");
        WriteFile(In("radio"), "");
        ASSERT_TRUE(daemon.WaitForLog("unload bundle done.", i));
        fs::remove(In("radio"));
    }
}
