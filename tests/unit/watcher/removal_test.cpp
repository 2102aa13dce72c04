// Directories that are removed bit by bit, by their owner or by hand, and removals that are not dealt with at once.

#include "unit/watcher/watched_collection.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <optional>

namespace {

namespace fs = std::filesystem;
using SystemServer::BundleDirWatcher;

/// A bundle that the watcher knows, and steps that are made one after the other, each between two scans.
class StepByStep : public WatchingACollection {
protected:
    using Step = std::function<void()>;

    void SetUp() override
    {
        MakeBundle(In("radio"));
        WriteText(In("radio") + "/bin/scand", "x");
        for (int i = 0; i < 20; ++i) {
            WriteText(In("radio") + "/data/" + std::to_string(i), "");
        }
        Watch();
        recorder.PassScans(2); // the first one counts what is there
    }

    /// What is raised, "step" for each step. The steps are made in the handlers of plain files.
    Events EventsOfSteps(const std::vector<Step>& steps)
    {
        recorder.Forget();
        const int first = m_files;
        const auto nextFile = [this] { return In("step-" + std::to_string(m_files++)); };
        recorder.SetHandler([&](const std::string& event) {
            const std::size_t done = static_cast<std::size_t>(m_files - first) - 1;
            if (event.rfind("added step-", 0) == 0 && done < steps.size()) {
                steps[done]();
                WriteText(nextFile(), "");
            }
        });
        const std::string last = "added step-" + std::to_string(first + static_cast<int>(steps.size()));
        WriteText(nextFile(), "");
        EXPECT_TRUE(recorder.WaitFor(last));
        recorder.PassScans(4);
        recorder.SetHandler({});
        Events events = recorder.Noted();
        for (std::string& event : events) {
            event = event.rfind("added step-", 0) == 0 ? "step" : event;
        }
        return events;
    }

    /// So many steps, then what else is raised.
    static Events After(std::size_t steps, const Events& events)
    {
        Events all(steps + 1, "step");
        all.insert(all.end(), events.begin(), events.end());
        return all;
    }

    static Events WithoutSteps(Events events)
    {
        events.erase(std::remove(events.begin(), events.end(), "step"), events.end());
        return events;
    }

    Step Removing(const std::string& name) const
    {
        return [path = In("radio") + "/" + name] { EXPECT_TRUE(fs::remove(path)) << path; };
    }
    Step Appending() const
    {
        return [path = In("radio") + "/data/stations"] { Append(path, "two\n"); };
    }

private:
    std::atomic<int> m_files{0};
};

class ARemovalAtWork : public StepByStep {};

class Withdrawing : public StepByStep {
protected:
    using Withdrawal = BundleDirWatcher::Withdrawal;

    /// The rest is removed later or never.
    void WithdrawAndBegin()
    {
        Withdrawal withdrawal(*watcher, In("radio"));
        withdrawal.Begin();
    }
    bool IsWithdrawn() { return watcher->IsWithdrawn(In("radio")); }
    static ino_t NumberOf(const std::string& path)
    {
        struct stat status {};
        return ::stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
    }
};

class RetryingARemoval : public WatchingACollection {
protected:
    /// Its handler asks for another try so many times.
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

TEST_F(ARemovalAtWork, RaisesNothingButItsEnd)
{
    EXPECT_EQ(
        WithoutSteps(EventsOfSteps({Removing("data/1"), Removing("bin/scand"), Removing("bin/tunerd"), Removing("bin"),
                                    Removing("data/2"), Removing("BundleManifest.ini"), Removing("script/install.sh"),
                                    Removing("script"), Removing("data/3"), [this] { fs::remove_all(In("radio")); }})),
        Events{"removed radio"});
}

TEST_F(ARemovalAtWork, RaisesNothingHoweverLongItTakes)
{
    std::vector<Step> steps{Removing("bin/scand")};
    for (int i = 0; i < 20; ++i) {
        steps.push_back(Removing("data/" + std::to_string(i)));
    }
    steps.emplace_back([this] { fs::remove_all(In("radio")); });
    EXPECT_EQ(WithoutSteps(EventsOfSteps(steps)), Events{"removed radio"});
}

TEST_F(ARemovalAtWork, IsAChangeOnceTheWholeTreeHasStoodStill)
{
    for (const char* const name : {"bin/scand", "script/install.sh", "BundleManifest.ini"}) {
        EXPECT_EQ(EventsOfSteps({Removing(name), Appending(), Appending(), Appending()}), After(4, {"modified radio"}))
            << name;
    }
    EXPECT_EQ(EventsOfSteps({[this] { fs::remove_all(In("radio") + "/bin"); }, Appending(), Appending()}),
              After(3, {"modified radio"}));
}

// Its items may write to its other folders without an end.
TEST_F(ARemovalAtWork, IsAChangeOfABundleThatNeverStandsStillWhenNothingMoreIsTakenAway)
{
    constexpr int looks = 10;
    std::vector<Step> steps{[this] { fs::remove_all(In("radio") + "/script"); }};
    for (int i = 0; i < 2 * looks; ++i) {
        steps.push_back(Appending());
    }
    const Events events = EventsOfSteps(steps);
    const auto modified = std::find(events.begin(), events.end(), "modified radio");
    ASSERT_NE(modified, events.end());
    EXPECT_GE(modified - events.begin(), looks);
    EXPECT_LE(modified - events.begin(), looks + 3);
    EXPECT_EQ(std::count(events.begin(), events.end(), "modified radio"), 1);
}

TEST_F(ARemovalAtWork, IsNoneWhereANameIsReplacedOrAdded)
{
    EXPECT_EQ(EventsOfSteps({[this] { WriteText(In("radio") + "/bin/newd", ""); }, [] {}}),
              (Events{"step", "step", "modified radio", "step"}));
    EXPECT_EQ(EventsOfSteps({[this] { fs::rename(In("radio") + "/bin/newd", In("radio") + "/bin/scand"); }, [] {}}),
              After(2, {"modified radio"}))
        << "a name less";
    EXPECT_EQ(EventsOfSteps({[this] {
                                 WriteText(Aside("tunerd"), "");
                                 fs::rename(Aside("tunerd"), In("radio") + "/bin/tunerd");
                             },
                             [] {}}),
              (Events{"step", "step", "modified radio", "step"}));
}

TEST_F(Withdrawing, RaisesNothingOfTheDirectoryButItsEnd)
{
    std::optional<Withdrawal> withdrawal(std::in_place, *watcher, In("radio"));
    withdrawal->Begin();
    EXPECT_EQ(EventsOfSteps({Removing("data/1"), [] {}, [] {}, Removing("BundleManifest.ini"), [] {}, [] {},
                             [this] { fs::remove_all(In("radio") + "/bin"); }, [] {}, [] {}}),
              After(9, {}));
    EXPECT_TRUE(IsWithdrawn());
    EXPECT_EQ(EventsOf([&] {
                  fs::remove_all(In("radio"));
                  EXPECT_FALSE(IsWithdrawn());
                  withdrawal.reset();
              }),
              Events{"removed radio"});
    MakeBundle(Aside("radio"));
    EXPECT_EQ(EventsOf("mv \"$ASIDE\"/radio \"$COLLECTION\"/"), Events{"added radio"});
    EXPECT_EQ(EventsOf("touch \"$COLLECTION\"/radio"), Events{"modified radio"});
}

TEST_F(Withdrawing, HoldsForWhatIsLeftOfTheDirectory)
{
    WithdrawAndBegin();
    for (const char* const command : {"touch \"$COLLECTION\"/radio", "rm -r \"$COLLECTION\"/radio/bin",
                                      "echo >> \"$COLLECTION\"/radio/BundleManifest.ini"}) {
        EXPECT_EQ(EventsOf(command), Events{}) << command;
        EXPECT_TRUE(IsWithdrawn());
    }
    EXPECT_EQ(EventsOf([this] {
                  watcher->OfferAgain(In("radio"));
                  EXPECT_TRUE(watcher->RaiseOnceMore(In("radio")));
                  watcher->AcceptChanges(In("radio"));
              }),
              Events{});
    EXPECT_EQ(EventsOf("rm -r \"$COLLECTION\"/radio"), Events{"removed radio"});
}

TEST_F(Withdrawing, EndsWhenAnotherDirectoryComesToItsPlaceHoweverSoon)
{
    for (int i = 0; i < 3; ++i) {
        MakeBundle(Aside("radio"));
        WithdrawAndBegin();
        EXPECT_EQ(EventsBetweenTwoScans("mv \"$COLLECTION\"/radio \"$ASIDE\"/old && mv \"$ASIDE\"/radio "
                                        "\"$COLLECTION\"/ && rm -r \"$ASIDE\"/old"),
                  (Events{"removed radio", "added radio"}));
        EXPECT_FALSE(IsWithdrawn());
    }
}

TEST_F(Withdrawing, EndsWhenTheRemovalIsCompleteThoughTheSameLinkIsMadeAgainAtOnce)
{
    fs::rename(In("radio"), Aside("radio"));
    recorder.PassScans(2);
    fs::create_directory_symlink(Aside("radio"), In("radio"));
    recorder.PassScans(4);
    EXPECT_EQ(EventsBetweenTwoScans([this] {
                  {
                      Withdrawal withdrawal(*watcher, In("radio"));
                      withdrawal.Begin();
                      fs::remove(In("radio"));
                  }
                  fs::create_directory_symlink(Aside("radio"), In("radio"));
              }),
              (Events{"removed radio", "added radio"}));
}

TEST_F(Withdrawing, TellsADirectoryByItsBirthThatHasGotTheNumberOfTheOldOne)
{
    WithdrawAndBegin();
    bool isSameNumber = false;
    const Events events = EventsBetweenTwoScans([&] {
        const ino_t number = NumberOf(In("radio"));
        fs::remove_all(In("radio"));
        constexpr int attempts = 1000; // most file systems give the lowest free number
        for (int i = 0; i < attempts && !isSameNumber; ++i) {
            const std::string candidate = Aside(std::to_string(i));
            fs::create_directory(candidate);
            isSameNumber = NumberOf(candidate) == number;
            if (isSameNumber) {
                MakeBundle(candidate);
                fs::rename(candidate, In("radio"));
            }
        }
    });
    if (!isSameNumber) {
        GTEST_SKIP() << "this file system gives no number a second time";
    }
    EXPECT_EQ(events, (Events{"removed radio", "added radio"}));
}

// As a mount point is, which cannot be removed.
TEST_F(Withdrawing, EndsWhenTheDirectoryHasBeenEmptiedAndSomethingComesIntoIt)
{
    std::optional<Withdrawal> withdrawal(std::in_place, *watcher, In("radio"));
    withdrawal->Begin();
    EXPECT_EQ(EventsOf("rm -r \"$COLLECTION\"/radio/*"), Events{});
    withdrawal.reset();
    EXPECT_TRUE(IsWithdrawn());
    EXPECT_EQ(EventsOf([this] { MakeBundle(In("radio")); }), (Events{"removed radio", "added radio"}));
    EXPECT_FALSE(IsWithdrawn());
}

TEST_F(Withdrawing, LosesNoChangeWhenTheRemovalHasNotBegun)
{
    EXPECT_EQ(EventsOf([this] {
                  const Withdrawal withdrawal(*watcher, In("radio"));
                  RunShell("touch \"$COLLECTION\"/radio");
                  recorder.PassScans(2);
                  EXPECT_EQ(recorder.Noted(), Events{});
              }),
              Events{"modified radio"});
    EXPECT_FALSE(IsWithdrawn());
    EXPECT_EQ(EventsOf([this] {
                  RunShell("touch \"$COLLECTION\"/radio");
                  const Withdrawal withdrawal(*watcher, In("radio"));
              }),
              Events{"modified radio"})
        << "made before";
}

TEST_F(Withdrawing, StopsAChangeThatHasBeenFoundAndNotYetRaised)
{
    recorder.SetHandler([this](const std::string& event) {
        if (event == "added first") {
            WithdrawAndBegin();
        }
    });
    EXPECT_EQ(EventsBetweenTwoScans([this] {
                  Append(In("radio") + "/BundleManifest.ini", "\n");
                  WriteText(In("first"), "");
              }),
              Events{"added first"});
}

TEST_F(Withdrawing, HoldsForADirectoryThatIsNotYetKnown)
{
    EXPECT_EQ(EventsBetweenTwoScans([this] {
                  MakeBundle(In("tuner"));
                  Withdrawal withdrawal(*watcher, In("tuner"));
                  withdrawal.Begin();
                  fs::remove_all(In("tuner") + "/bin");
              }),
              Events{});
    EXPECT_TRUE(watcher->IsWithdrawn(In("tuner")));
    EXPECT_EQ(EventsOf("rm -r \"$COLLECTION\"/tuner"), Events{}) << "it never came";
}

TEST_F(Withdrawing, OfWhatIsNoItemDoesNothing)
{
    EXPECT_EQ(EventsOf([this] {
                  for (const std::string& path : {In(""), Aside("radio"), std::string("radio"), std::string()}) {
                      Withdrawal withdrawal(*watcher, path);
                      withdrawal.Begin();
                      EXPECT_FALSE(watcher->IsWithdrawn(path));
                  }
              }),
              Events{});
    EXPECT_FALSE(IsWithdrawn());
    EXPECT_EQ(EventsOf("touch \"$COLLECTION\"/radio"), Events{"modified radio"});
}

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
    EXPECT_EQ(EventsOf("rm -r \"$COLLECTION\"/radio"), Events{"removed radio"});
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

TEST_F(RetryingARemoval, GoesOnWhileADirectoryIsArrivingOrAFileStandsInItsPlace)
{
    MakeBundle(In("radio"));
    Watch();
    RetryTimes(ALWAYS);
    BetweenTwoScans([this] {
        fs::remove_all(In("radio"));
        WriteText(In("radio"), "");
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
    RetryTimes(1);
    recorder.PassScans(1);
    fs::remove_all(In("radio"));
    EXPECT_TRUE(recorder.WaitFor("removed radio"));
    EXPECT_EQ(EventsOf([this] { fs::rename(Aside("alarm"), In("alarm")); }).front(), "removed radio");
}

TEST_F(RetryingARemoval, OfWhatIsNotBeingRemovedDoesNothing)
{
    MakeBundle(In("radio"));
    Watch();
    EXPECT_EQ(EventsOf([this] {
                  for (const std::string& path : {In("radio"), In("missing"), In(""), Aside("radio"), std::string()}) {
                      watcher->RetryRemoval(path);
                  }
              }),
              Events{});
    EXPECT_EQ(EventsOf("rm -r \"$COLLECTION\"/radio"), Events{"removed radio"});
}

TEST_F(RaisingOnceMore, RaisesAnItemWhoseChangesAreAccepted)
{
    EXPECT_EQ(EventsBetweenTwoScans([this] {
                  Append(In("radio") + "/BundleManifest.ini", "\n");
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

TEST_F(RaisingOnceMore, OfWhatIsNotKnownDoesNothing)
{
    EXPECT_EQ(EventsOf([this] {
                  for (const std::string& path : {In("missing"), In(""), Aside("radio"), std::string()}) {
                      EXPECT_TRUE(watcher->RaiseOnceMore(path));
                  }
              }),
              Events{});
}
