// Bundles that are removed bit by bit: how the watcher tells a removal from a change.

#include "unit/watcher/step_by_step.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

class ARemovalAtWork : public StepByStep {};

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

TEST_F(ARemovalAtWork, IsAChangeOnceTheWholeTreeStopsChanging)
{
    for (const char* const name : {"bin/scand", "script/install.sh", "BundleManifest.ini"}) {
        EXPECT_EQ(EventsOfSteps({Removing(name), Appending(), Appending(), Appending()}), After(4, {"modified radio"}))
            << name;
    }
    EXPECT_EQ(EventsOfSteps({[this] { fs::remove_all(In("radio") + "/bin"); }, Appending(), Appending()}),
              After(3, {"modified radio"}));
}

// Its items may keep writing to its other folders.
TEST_F(ARemovalAtWork, IsAChangeAfterTenScansInWhichNothingMoreIsTakenAway)
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

TEST_F(ARemovalAtWork, IsNotSeenWhenANameIsReplacedOrAdded)
{
    EXPECT_EQ(EventsOfSteps({[this] { WriteFile(In("radio") + "/bin/newd", ""); }, [] {}}),
              (Events{"step", "step", "modified radio", "step"}));
    EXPECT_EQ(EventsOfSteps({[this] { fs::rename(In("radio") + "/bin/newd", In("radio") + "/bin/scand"); }, [] {}}),
              After(2, {"modified radio"}))
        << "one name fewer";
    EXPECT_EQ(EventsOfSteps({[this] {
                                 WriteFile(Aside("tunerd"), "");
                                 fs::rename(Aside("tunerd"), In("radio") + "/bin/tunerd");
                             },
                             [] {}}),
              (Events{"step", "step", "modified radio", "step"}));
}
