// Every way in which a bundle is added, changed and removed, and the events that follow.

#include "unit/watcher/watched_collection.h"
#include "unit/watcher/ways.h"

#include <string>

namespace {

std::string NameOf(const ::testing::TestParamInfo<Way>& info)
{
    return info.param.name;
}

class ByAWay : public WatchingACollection, public ::testing::WithParamInterface<Way> {
protected:
    void SetUp() override
    {
        if (!HasTool(GetParam())) {
            GTEST_SKIP() << "there is no " << GetParam().tool << " here";
        }
    }
};

class ADirectoryThatIsAdded : public ByAWay {};
class ADirectoryThatIsRemoved : public ByAWay {};
class ABundleThatIsChanged : public ByAWay {};
class ABundleThatIsWrittenTo : public ByAWay {};

} // namespace

TEST_P(ADirectoryThatIsAdded, RaisesOneAdditionEachTime)
{
    MakeBundle(Aside("radio"));
    RunShell("cd \"$ASIDE\" && tar -cf radio.tar radio && cp -r radio copy");
    Watch(UNHURRIED);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(EventsOf(GetParam().command), Events{"added radio"});
        EXPECT_EQ(EventsBetweenTwoScans("rm -rf \"$COLLECTION\"/radio"), Events{"removed radio"});
        RunShell("cd \"$ASIDE\" && rm -rf radio && cp -r copy radio");
    }
}

INSTANTIATE_TEST_SUITE_P(By, ADirectoryThatIsAdded, ::testing::ValuesIn(WaysOfComing()), NameOf);

TEST_P(ADirectoryThatIsRemoved, IsRemovedOnce)
{
    MakeBundle(In("radio"));
    MakeBundle(In("tuner"));
    Watch();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(EventsBetweenTwoScans(GetParam().command), Events{"removed radio"});
        MakeBundle(Aside("next"));
        EXPECT_EQ(EventsOf("mv \"$ASIDE\"/next \"$COLLECTION\"/radio"), Events{"added radio"});
    }
}

INSTANTIATE_TEST_SUITE_P(By, ADirectoryThatIsRemoved, ::testing::ValuesIn(WaysOfGoing()), NameOf);

TEST_P(ABundleThatIsChanged, IsModifiedOnce)
{
    MakeBundle(In("radio"));
    MakeBundle(In("tuner"));
    MakeBundle(Aside("radio"));
    RunShell("echo '; new' >> \"$ASIDE\"/radio/BundleManifest.ini");
    Watch();
    EXPECT_EQ(EventsBetweenTwoScans(GetParam().command), Events{"modified radio"});
}

// Some ways take several steps. A scan may come between them and raises what it finds.
TEST_P(ABundleThatIsChanged, IsModifiedAtLeastOnceAtAnyTimeBetweenScans)
{
    MakeBundle(In("radio"));
    MakeBundle(In("tuner"));
    MakeBundle(Aside("radio"));
    RunShell("echo '; new' >> \"$ASIDE\"/radio/BundleManifest.ini");
    Watch();
    const Events events = EventsOf(GetParam().command);
    EXPECT_FALSE(events.empty());
    for (const std::string& event : events) {
        EXPECT_TRUE(event == "modified radio" || event == "removed radio" || event == "added radio") << event;
    }
}

INSTANTIATE_TEST_SUITE_P(By, ABundleThatIsChanged, ::testing::ValuesIn(WaysOfChanging()), NameOf);

TEST_P(ABundleThatIsWrittenTo, RaisesNothing)
{
    MakeBundle(In("radio"));
    Watch();
    EXPECT_EQ(EventsOf(GetParam().command), Events{});
}

INSTANTIATE_TEST_SUITE_P(By, ABundleThatIsWrittenTo, ::testing::ValuesIn(WaysOfWriting()), NameOf);
