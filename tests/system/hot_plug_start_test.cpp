// What comes, changes and goes while the server is still starting: the events wait until its start is over.

#include "system/hot_plug.h"

#include <dirent.h>

#include <filesystem>

namespace {

namespace fs = std::filesystem;

/// The last bundle that start-up loads waits in its "install.sh" until it is told to go on; all others are loaded then.
class WhileTheServerStarts : public HotPlug {
protected:
    void SetUp() override
    {
        for (const char* const name : {"radio", "tuner", "alarm"}) {
            collection.Bundle(name).Write();
        }
        m_last = LastAsFound(collection.Path());
        collection.Bundle(m_last).Install(Shell("until [ -e " + Note("go") + " ]; do sleep 0.05; done")).Write();
        for (const char* const name : {"radio", "tuner", "alarm"}) {
            if (name != m_last) {
                m_first = name;
            }
        }
        daemon.Start();
        ASSERT_TRUE(daemon.WaitForLog("run script[" + In(m_last) + "/./script/install.sh]..."));
    }

    void GoOn()
    {
        WriteFile(Note("go"), "");
        ASSERT_TRUE(daemon.WaitForLog("bundle server start running..."));
    }

    /// One that start-up has loaded when it waits.
    const std::string& First() const { return m_first; }

private:
    /// The entry that a walk over the directory finds last.
    static std::string LastAsFound(const std::string& path)
    {
        std::string last;
        DIR* const stream = ::opendir(path.c_str());
        for (const dirent* entry = ::readdir(stream); entry != nullptr; entry = ::readdir(stream)) {
            if (entry->d_name[0] != '.') {
                last = entry->d_name;
            }
        }
        ::closedir(stream);
        return last;
    }

    std::string m_first;
    std::string m_last;
};

} // namespace

TEST_F(WhileTheServerStarts, ABundleThatComesIsLoadedOnceWhenItHasStarted)
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

TEST_F(WhileTheServerStarts, ABundleThatIsChangedJustBeforeItGoesOnIsUpdated)
{
    // The watcher's thread waits with this event, so it sees the change only after the start.
    WriteFile(In("note"), "");
    staging.Bundle("opera").Write();
    MoveIn("opera");
    ASSERT_TRUE(daemon.WaitForLog("dir item add event happen.", 2));
    collection.Bundle(First()).Copy("changed", TEST_SLEEPER).Write();
    GoOn();
    EXPECT_NE(daemon.WaitForItem(First(), "changed"), 0);
}

TEST_F(WhileTheServerStarts, ABundleThatGoesIsUnloaded)
{
    fs::rename(In(First()), staging / First());
    ASSERT_TRUE(daemon.WaitForLog("dir item remove event happen."));
    GoOn();
    EXPECT_TRUE(daemon.WaitForLog("find bundle done."));
    PassScans();
    EXPECT_EQ(Removed(), 1);
    EXPECT_TRUE(daemon.IsRunning());
}
