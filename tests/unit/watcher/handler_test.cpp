// What an event's handler may do, and how the watcher behaves meanwhile.

#include "unit/watcher/watched_collection.h"

#include <Poco/Exception.h>
#include <algorithm>
#include <mutex>

#include <atomic>
#include <filesystem>
#include <future>
#include <stdexcept>
#include <thread>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

/// A bundle that the watcher knows.
class AHandler : public WatchingACollection {
protected:
    void SetUp() override
    {
        MakeBundle(In("radio"));
        Watch();
    }

    void EditManifest() const { AppendFile(In("radio") + "/BundleManifest.ini", "\n"); }
};

class DestroyingTheWatcher : public AHandler {};
class AcceptingChanges : public AHandler {};
class RetryingAnAddition : public AHandler {};

} // namespace

TEST_F(AHandler, ThatThrowsIsLoggedAndTheNextEventRaised)
{
    recorder.SetHandler([](const std::string& event) {
        if (event == "added a") {
            throw Poco::NotFoundException("framework");
        }
        if (event == "added b") {
            throw std::runtime_error("standard");
        }
        if (event == "added c") {
            throw 1; // no exception class at all
        }
    });
    EXPECT_EQ(EventsBetweenTwoScans("cd \"$COLLECTION\" && echo > a && echo > b && echo > c && echo > d"),
              (Events{"added a", "added b", "added c", "added d"}));
    EXPECT_TRUE(log.HasError("handler of [" + In("a") + "] fail. exception info: [Not found: framework]."));
    EXPECT_TRUE(log.HasError("handler of [" + In("b") + "] fail. exception info: [standard]."));
    EXPECT_TRUE(log.HasError("handler of [" + In("c") + "] fail."));
}

TEST_F(AHandler, LosesNoChangeThatIsMadeWhileItRuns)
{
    std::atomic<int> handled{0};
    recorder.SetHandler([this, &handled](const std::string& event) {
        if (event == "modified radio" && ++handled < 4) {
            EditManifest();
        }
    });
    EXPECT_EQ(EventsOf([&] {
                  EditManifest();
                  EXPECT_TRUE(Eventually(PATIENCE, [&] { return handled == 4; }));
              }),
              Events(4, "modified radio"));
    watcher.reset();
}

TEST_F(AHandler, LosesNoChangeOfAnotherItemWhileItRuns)
{
    MakeBundle(In("tuner"));
    MakeBundle(Aside("alarm"));
    recorder.PassScans(4);
    recorder.SetHandler([this](const std::string& event) {
        if (event == "modified radio") {
            AppendFile(In("tuner") + "/BundleManifest.ini", "\n");
            fs::rename(Aside("alarm"), In("alarm"));
            fs::remove_all(In("radio"));
        }
    });
    Events events = EventsOf([this] { EditManifest(); });
    ASSERT_EQ(events.size(), 4U);
    EXPECT_EQ(events[0], "modified radio");
    EXPECT_EQ(events[1], "removed radio");
    std::sort(events.begin() + 2, events.end());
    EXPECT_EQ(events[2], "added alarm");
    EXPECT_EQ(events[3], "modified tuner");
}

TEST_F(AHandler, RunsOneAtATimeAndAlwaysOnTheSameThread)
{
    std::atomic<int> running{0};
    std::atomic<bool> isAlone{true};
    std::mutex mutex;
    std::vector<std::thread::id> threads;
    recorder.SetHandler([&](const std::string& /*event*/) {
        isAlone = isAlone && ++running == 1;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            threads.push_back(std::this_thread::get_id());
        }
        std::this_thread::yield();
        --running;
    });
    for (int i = 0; i < 20; ++i) {
        MakeBundle(In("b" + std::to_string(i)));
    }
    recorder.PassScans(4);
    EditManifest();
    fs::remove_all(In("b1"));
    recorder.PassScans(4);
    watcher.reset();
    EXPECT_TRUE(isAlone);
    EXPECT_GE(threads.size(), 22U);
    EXPECT_NE(threads.front(), std::this_thread::get_id());
    EXPECT_TRUE(std::all_of(threads.begin(), threads.end(), [&](auto thread) { return thread == threads.front(); }));
}

// An item that a scan has found may be gone before its event is raised.
TEST_F(AHandler, IsNotCalledForAnItemThatHasGoneMeanwhile)
{
    MakeBundle(Aside("zulu"));
    recorder.SetHandler([this](const std::string& event) {
        if (event == "added first") {
            fs::remove_all(In("zulu"));
        }
    });
    EXPECT_EQ(EventsBetweenTwoScans([this] {
                  fs::rename(Aside("zulu"), In("zulu"));
                  WriteFile(In("first"), "");
              }),
              Events{"added first"});
}

TEST_F(AHandler, IsCalledForACompleteCopyOnlyWhenOneHasTakenThePlaceOfWhatCameBefore)
{
    MakeBundle(Aside("zulu"));
    int written = 0;
    int writtenWhenAdded = 0;
    recorder.SetHandler([&](const std::string& event) {
        if (event == "added tick-0") {
            fs::remove_all(In("zulu"));
            fs::create_directory(In("zulu"));
        }
        if (event == "added zulu") {
            writtenWhenAdded = written;
        } else if (event.rfind("added tick-", 0) == 0 && written < 4) {
            ++written;
            AppendFile(In("zulu") + "/BundleManifest.ini", "\n");
            WriteFile(In("tick-" + std::to_string(written)), "");
        }
    });
    BetweenTwoScans([this] {
        fs::rename(Aside("zulu"), In("zulu"));
        WriteFile(In("tick-0"), "");
    });
    EXPECT_TRUE(recorder.WaitFor("added zulu"));
    watcher.reset();
    EXPECT_EQ(writtenWhenAdded, 4);
}

TEST_F(DestroyingTheWatcher, TakesLessThanAScanIntervalWhenNoHandlerRuns)
{
    Watch(1h);
    const auto start = std::chrono::steady_clock::now();
    watcher.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
}

TEST_F(DestroyingTheWatcher, WaitsForAHandlerAndRaisesNoFurtherEvent)
{
    std::promise<void> entered;
    std::atomic<bool> isBeingDestroyed{false};
    std::atomic<bool> isDone{false};
    recorder.SetHandler([&](const std::string& event) {
        if (event != "added a") {
            return;
        }
        entered.set_value();
        Eventually(PATIENCE, [&] { return isBeingDestroyed.load(); });
        // Long enough for a destructor that does not wait to return.
        const auto end = std::chrono::steady_clock::now() + 100ms;
        Eventually(PATIENCE, [&] { return std::chrono::steady_clock::now() >= end; });
        isDone = true;
    });
    BetweenTwoScans("cd \"$COLLECTION\" && echo > a && echo > b && echo > c");
    ASSERT_EQ(entered.get_future().wait_for(PATIENCE), std::future_status::ready);
    isBeingDestroyed = true;
    watcher.reset();
    EXPECT_TRUE(isDone);
    EXPECT_EQ(recorder.Noted(), Events{"added a"});
}

TEST_F(DestroyingTheWatcher, IsSafeWhileScansRunAndEventsAreRaised)
{
    for (int i = 0; i < 50; ++i) {
        Watch(1ms);
        EditManifest();
        if (i % 2 == 0) {
            recorder.PassScans(1);
        }
        watcher.reset();
    }
    recorder.Forget();
    EditManifest();
    EXPECT_EQ(recorder.Noted(), Events{});
}

TEST_F(AcceptingChanges, RaisesNothingForTheHandlersOwnChanges)
{
    recorder.SetHandler([this](const std::string& event) {
        if (event == "modified radio") {
            EditManifest();
            WriteFile(In("radio") + "/bin/generated", "");
            WriteFile(In("radio") + "/script/generated", "");
            watcher->AcceptChanges(In("radio"));
        }
    });
    EXPECT_EQ(EventsOf([this] { EditManifest(); }), Events{"modified radio"});
    EXPECT_EQ(EventsOf([this] { EditManifest(); }), Events{"modified radio"});
}

TEST_F(AcceptingChanges, RaisesLaterChanges)
{
    std::atomic<int> handled{0};
    recorder.SetHandler([&](const std::string& event) {
        if (event == "modified radio" && ++handled == 1) {
            watcher->AcceptChanges(In("radio"));
            EditManifest();
        }
    });
    EXPECT_EQ(EventsOf([this] { EditManifest(); }), Events(2, "modified radio"));
    watcher.reset();
}

TEST_F(AcceptingChanges, MayBeDoneByAnotherThread)
{
    BetweenTwoScans([this] {
        EditManifest();
        watcher->AcceptChanges(In("radio"));
    });
    EXPECT_EQ(EventsOf([] {}), Events{});
}

TEST_F(AcceptingChanges, DoesNotTakeAnotherDirectoryForTheSame)
{
    MakeBundle(Aside("radio"));
    std::atomic<int> handled{0};
    recorder.SetHandler([&](const std::string& event) {
        if (event == "modified radio" && ++handled == 1) {
            fs::rename(In("radio"), Aside("old"));
            fs::rename(Aside("radio"), In("radio"));
            watcher->AcceptChanges(In("radio"));
        }
    });
    EXPECT_EQ(EventsOf([this] { EditManifest(); }), Events(2, "modified radio"));
    watcher.reset();
}

TEST_F(AcceptingChanges, OfAnUnknownItemDoesNothing)
{
    EXPECT_EQ(EventsBetweenTwoScans([this] {
                  MakeBundle(In("tuner"));
                  EditManifest();
                  for (const std::string& path :
                       {In("tuner"), In("missing"), In(""), In("radio") + "/", In("radio/bin"), Aside("radio"),
                        std::string(In("radio").size(), 'x'), std::string("radio"), std::string()}) {
                      watcher->AcceptChanges(path);
                  }
              }),
              (Events{"modified radio", "added tuner"}));
}

TEST_F(RetryingAnAddition, RaisesAnItemAsAddedOnceMore)
{
    EXPECT_EQ(EventsOf([this] { watcher->RetryAdd(In("radio")); }), Events{"added radio"});
    EXPECT_EQ(EventsOf([this] { EditManifest(); }), Events{"modified radio"});
}

TEST_F(RetryingAnAddition, FollowsAChangeWhenItsHandlerAsksForIt)
{
    recorder.SetHandler([this](const std::string& event) {
        if (event == "modified radio") {
            watcher->RetryAdd(In("radio"));
        }
    });
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(EventsOf([this] { EditManifest(); }), (Events{"modified radio", "added radio"}));
    }
}

TEST_F(RetryingAnAddition, WaitsUntilTheRepairIsComplete)
{
    int written = 0;
    int writtenWhenAdded = 0;
    recorder.SetHandler([&](const std::string& event) {
        if (event == "modified radio") {
            watcher->RetryAdd(In("radio"));
        } else if (event == "added radio") {
            writtenWhenAdded = written;
        } else if (event.rfind("added tick-", 0) == 0 && written < 6) {
            ++written;
            AppendFile(In("radio") + "/bin/tunerd", "x");
            WriteFile(In("tick-" + std::to_string(written)), "");
        }
    });
    BetweenTwoScans([this] {
        EditManifest();
        WriteFile(In("tick-0"), "");
    });
    EXPECT_TRUE(recorder.WaitFor("added radio"));
    watcher.reset();
    EXPECT_EQ(writtenWhenAdded, 6);
}

// One of its items may keep running and writing.
TEST_F(RetryingAnAddition, DoesNotWaitForWritesToOtherFolders)
{
    bool isAdded = false;
    int ticks = 0;
    recorder.SetHandler([&](const std::string& event) {
        if (event == "modified radio") {
            watcher->RetryAdd(In("radio"));
        }
        isAdded = isAdded || event == "added radio";
        if (event.rfind("added tick-", 0) == 0 && !isAdded && ticks < 50) {
            AppendFile(In("radio") + "/log/today", "one more line\n");
            WriteFile(In("radio") + "/data/" + std::to_string(ticks), "");
            WriteFile(In("tick-" + std::to_string(++ticks)), "");
        }
    });
    BetweenTwoScans([this] {
        EditManifest();
        WriteFile(In("tick-0"), "");
    });
    EXPECT_TRUE(recorder.WaitFor("added radio"));
    watcher.reset();
    EXPECT_LT(ticks, 50);
}

TEST_F(RetryingAnAddition, RaisesTheRemovalOfAnItemThatHasGoneMeanwhile)
{
    EXPECT_EQ(EventsBetweenTwoScans([this] {
                  watcher->RetryAdd(In("radio"));
                  fs::remove_all(In("radio"));
              }),
              Events{"removed radio"});
}

TEST_F(RetryingAnAddition, RaisesAReplacementThatCameMeanwhile)
{
    MakeBundle(Aside("radio"));
    EXPECT_EQ(EventsBetweenTwoScans([this] {
                  fs::rename(In("radio"), Aside("old"));
                  fs::rename(Aside("radio"), In("radio"));
                  watcher->RetryAdd(In("radio"));
              }),
              Events{"added radio"});
}

TEST_F(RetryingAnAddition, OfAnUnknownItemDoesNothing)
{
    EXPECT_EQ(EventsOf([this] {
                  for (const std::string& path : {In("missing"), In(""), In("radio") + "/", In("radio/bin"),
                                                  Aside("radio"), std::string("radio"), std::string()}) {
                      watcher->RetryAdd(path);
                  }
              }),
              Events{});
}
