// Events that the watcher raises again because the server asks for it: removals that failed, and changes made
// meanwhile.

#include "unit/watcher/step_by_step.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>

namespace {

namespace fs = std::filesystem;

class RetryingARemoval : public WatchingACollection {
protected:
    /// The handler of the removal asks for another try so many times.
    void RetryTimes(int count)
    {
        tries = count;
        recorder.SetHandler([this](const std::string& event) {
            if (event == "removed radio" && tries-- > 0) {
                watcher->RetryRemoval(In("radio"));
            }
        });
    }

    static constexpr int ALWAYS = 1'000'000;
    std::atomic<int> tries{0};
};

class RaisingOnceMore : public StepByStep {};

} // namespace

TEST_F(RetryingARemoval, RaisesItAgainAtEachScanUntilItsHandlerIsDone)
{
    MakeBundle(In("radio"));
    Watch();
    RetryTimes(3);
    EXPECT_EQ(EventsOf([this] {
                  fs::remove_all(In("radio"));
                  recorder.PassScans(3);
              }),
              Events(4, "removed radio"));
    EXPECT_TRUE(log.HasInfo("removal of [" + In("radio") + "] is tried again once a second."));
    EXPECT_EQ(log.Messages().size(), 1U);
    MakeBundle(Aside("radio"));
    EXPECT_EQ(EventsOf("mv \"$ASIDE\"/radio \"$COLLECTION\"/"), Events{"added radio"});
    EXPECT_EQ(EventsBetweenTwoScans("rm -r \"$COLLECTION\"/radio"), Events{"removed radio"});
}

TEST_F(RetryingARemoval, BecomesRareAfterTenTimes)
{
    constexpr int frequent = 10;
    constexpr int rare = 60; // scans
    MakeBundle(In("radio"));
    Watch(std::chrono::milliseconds(5));
    RetryTimes(ALWAYS);
    fs::remove_all(In("radio"));
    recorder.PassScans(frequent + 2);
    EXPECT_EQ(recorder.Noted(), Events(frequent, "removed radio"));
    EXPECT_TRUE(log.HasInfo("removal of [" + In("radio") + "] is tried again once a minute."));
    EXPECT_TRUE(Eventually(PATIENCE, [this] { return recorder.Noted().size() == frequent + 1; }));
    EXPECT_TRUE(Eventually(PATIENCE, [this] { return recorder.Noted().size() == frequent + 2; }));
    recorder.PassScans(rare / 2);
    EXPECT_LE(recorder.Noted().size(), frequent + 3U);
    EXPECT_EQ(log.Messages().size(), 2U);
    watcher.reset();
}

TEST_F(RetryingARemoval, EndsWhenTheDirectoryIsBack)
{
    MakeBundle(In("radio"));
    Watch();
    RetryTimes(ALWAYS);
    fs::rename(In("radio"), Aside("radio"));
    EXPECT_TRUE(recorder.WaitFor("removed radio"));
    fs::rename(Aside("radio"), In("radio"));
    EXPECT_TRUE(recorder.WaitFor("added radio"));
    EXPECT_EQ(EventsOf([] {}), Events{});
    EXPECT_EQ(EventsOf("touch \"$COLLECTION\"/radio"), Events{"modified radio"});
}

TEST_F(RetryingARemoval, ContinuesWhileADirectoryIsCopiedOrAFileIsInItsPlace)
{
    MakeBundle(In("radio"));
    Watch();
    RetryTimes(ALWAYS);
    BetweenTwoScans([this] {
        fs::remove_all(In("radio"));
        WriteFile(In("radio"), "");
    });
    EXPECT_TRUE(recorder.WaitFor("added radio"));
    recorder.Forget();
    EXPECT_TRUE(recorder.WaitFor("removed radio"));
    fs::remove(In("radio"));
    recorder.Forget();
    fs::create_directory(In("radio"));
    EXPECT_TRUE(recorder.WaitFor("removed radio"));
}

TEST_F(RetryingARemoval, RaisesItBeforeAdditions)
{
    MakeBundle(In("radio"));
    MakeBundle(Aside("alarm"));
    Watch();
    tries = 1;
    recorder.SetHandler([this](const std::string& event) {
        if (event == "removed radio" && tries-- > 0) {
            watcher->RetryRemoval(In("radio"));
            fs::rename(Aside("alarm"), In("alarm"));
        }
    });
    EXPECT_EQ(EventsOf([this] { fs::rename(In("radio"), Aside("gone")); }),
              (Events{"removed radio", "removed radio", "added alarm"}));
}

TEST_F(RetryingARemoval, OfAPathThatIsNotBeingRemovedDoesNothing)
{
    MakeBundle(In("radio"));
    Watch();
    EXPECT_EQ(EventsOf([this] {
                  for (const std::string& path : {In("radio"), In("missing"), In(""), Aside("radio"), std::string()}) {
                      watcher->RetryRemoval(path);
                  }
              }),
              Events{});
    EXPECT_EQ(EventsBetweenTwoScans("rm -r \"$COLLECTION\"/radio"), Events{"removed radio"});
}

TEST_F(RaisingOnceMore, RaisesAnItemWhoseChangesAreAccepted)
{
    EXPECT_EQ(EventsBetweenTwoScans([this] {
                  AppendFile(In("radio") + "/BundleManifest.ini", "\n");
                  watcher->AcceptChanges(In("radio"));
                  EXPECT_TRUE(watcher->RaiseOnceMore(In("radio")));
              }),
              Events{"modified radio"});
}

TEST_F(RaisingOnceMore, IsRefusedInARowAndNotAfterAChange)
{
    int refused = 0;
    recorder.SetHandler([this, &refused](const std::string& event) {
        if (event == "modified radio") {
            refused += watcher->RaiseOnceMore(In("radio")) ? 0 : 1;
        }
    });
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(EventsOf("touch \"$COLLECTION\"/radio"), Events(2, "modified radio"));
        EXPECT_EQ(refused, i);
    }
    watcher.reset();
}

TEST_F(RaisingOnceMore, OfAnUnknownPathDoesNothing)
{
    EXPECT_EQ(EventsOf([this] {
                  for (const std::string& path : {In("missing"), In(""), Aside("radio"), std::string()}) {
                      EXPECT_TRUE(watcher->RaiseOnceMore(path));
                  }
              }),
              Events{});
}
