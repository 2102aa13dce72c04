// Bundles that are added, changed and removed while the server starts. Their events wait until the start is over.

#include "system/hot_plug/hot_plug.h"

#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

/// The last bundle that start-up loads waits in its "install.sh" until the test lets it continue. By then all others
/// are loaded, except one without a manifest.
class WhileTheServerStarts : public HotPlug {
protected:
    void SetUp() override
    {
        for (const char* const name : {"radio", "tuner", "alarm"}) {
            collection.Bundle(name).Write();
        }
        const std::vector<std::string> names = AsFound(collection.Path());
        ASSERT_EQ(names.size(), 3U);
        m_first = names[0];
        collection.Bundle(m_first).Install(Shell("exit 0")).Write();
        m_broken = names[1];
        fs::rename(In(m_broken) + "/BundleManifest.ini", staging / "manifest");
        collection.Bundle(names[2]).Install(Shell("until [ -e " + Note("go") + " ]; do sleep 0.05; done")).Write();
        daemon.Start();
        ASSERT_TRUE(daemon.WaitForLog("run script[" + In(names[2]) + "/./script/install.sh]..."));
        ASSERT_EQ(daemon.CountInLog("failed to load bundles from " + In(m_broken) + ":"), 1);
    }

    void GoOn()
    {
        WriteFile(Note("go"), "");
        ASSERT_TRUE(daemon.WaitForLog("bundle server start running..."));
    }

    /// A bundle that start-up has loaded when it waits.
    const std::string& First() const { return m_first; }

    /// A bundle that start-up could not load.
    const std::string& Broken() const { return m_broken; }
    void Mend() const { fs::rename(staging / "manifest", In(m_broken) + "/BundleManifest.ini"); }

    /// Raises an event that keeps the watcher's thread waiting. It sees later changes only after the start.
    void KeepWatcherWaiting()
    {
        WriteFile(In("note"), "");
        staging.Bundle("opera").Write();
        MoveIn("opera");
        ASSERT_TRUE(daemon.WaitForLog("dir item add event happen.", 2));
    }

private:
    /// The entries in the order in which a directory walk finds them.
    static std::vector<std::string> AsFound(const std::string& path)
    {
        std::vector<std::string> names;
        for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
            names.push_back(entry.path().filename());
        }
        return names;
    }

    std::string m_first;
    std::string m_broken;
};

} // namespace

TEST_F(WhileTheServerStarts, ABundleThatIsAddedIsLoadedOnceWhenItHasStarted)
{
    staging.Bundle("opera").Copy("operad", TEST_SLEEPER).Write();
    MoveIn("opera");
    ASSERT_TRUE(daemon.WaitForLog("dir item add event happen."));
    EXPECT_EQ(daemon.CountInLog("add a new bundle dir."), 0) << "it waits";
    GoOn();
    EXPECT_TRUE(IsStarted("opera"));
    EXPECT_NE(daemon.WaitForItem("opera", "operad"), 0);
    PassScans();
    EXPECT_EQ(daemon.CountInLog("load bundle[opera] success."), 1);
    EXPECT_EQ(daemon.CountInLog("already exists"), 0);
    EXPECT_EQ(daemon.PidsOf("opera", "operad").size(), 1U);
}

TEST_F(WhileTheServerStarts, ABundleThatIsChangedIsUpdated)
{
    collection.Bundle(First()).Copy("changed", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.WaitForLog("dir item modified event happen."));
    GoOn();
    EXPECT_NE(daemon.WaitForItem(First(), "changed"), 0);
    EXPECT_EQ(daemon.CountInLog("load bundle[" + First() + "] success."), 1);
}

TEST_F(WhileTheServerStarts, ABundleThatIsChangedAtTheEndOfItsStartIsUpdated)
{
    KeepWatcherWaiting();
    collection.Bundle(First()).Copy("changed", TEST_SLEEPER).Write();
    GoOn();
    EXPECT_NE(daemon.WaitForItem(First(), "changed"), 0);
}

TEST_F(WhileTheServerStarts, ABundleThatIsRepairedIsLoadedWhenItHasStarted)
{
    Mend();
    ASSERT_TRUE(daemon.WaitForLog("dir item modified event happen."));
    GoOn();
    EXPECT_TRUE(IsStarted(Broken()));
}

TEST_F(WhileTheServerStarts, ABundleThatIsRepairedAtTheEndOfTheStartIsLoaded)
{
    KeepWatcherWaiting();
    Mend();
    GoOn();
    EXPECT_TRUE(IsStarted(Broken()));
}

TEST_F(WhileTheServerStarts, ABundleThatIsRemovedIsUnloaded)
{
    fs::rename(In(First()), staging / First());
    ASSERT_TRUE(daemon.WaitForLog("dir item remove event happen."));
    GoOn();
    EXPECT_TRUE(daemon.WaitForLog("find bundle done."));
    PassScans();
    EXPECT_EQ(Removed(), 1);
    EXPECT_TRUE(daemon.IsRunning());
}
