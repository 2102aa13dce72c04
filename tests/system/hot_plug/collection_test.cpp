// The collection as a whole: its scans, slow copies into it, and several bundles at once.

#include "system/hot_plug/hot_plug.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class ASlowCopy : public HotPlug {};
class TheCollection : public HotPlug {};
class SeveralBundles : public HotPlug {};

/// Writes a program as a slow link does: a character, a pause, the next character. No part of it is a program.
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
                  AppendFile(program, std::string(1, piece));
                  std::this_thread::sleep_for(pause); // the slow writer is the subject of the test
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

// The copy seems complete too early and fails to load. When the copy continues, the watcher adds it again.
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

// A bundle that is moved in is loaded by the scan that sees it, after the handler's second of waiting.
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
