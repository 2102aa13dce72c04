#include "system/system_test.h"

#include <algorithm>
#include <filesystem>

namespace {

using namespace std::chrono_literals;

class AThreadItem : public SystemTest {
protected:
    BundleBuilder Radio(const std::string& function) const
    {
        return collection.Bundle("radio").ThreadMode().Library("libradio.so", function, TEST_LIBRARY);
    }

    bool HasThread(const std::string& name) const
    {
        const std::vector<std::string> names = daemon.ThreadNames();
        return std::find(names.begin(), names.end(), name) != names.end();
    }

    static constexpr const char* START = "bundle[radio] dyn lib[libradio.so] activate start...";
    static constexpr const char* DONE = "bundle[radio] dyn lib[libradio.so] activate done.";
};

} // namespace

TEST_F(AThreadItem, IsCalledAndItsReturnIsLogged)
{
    Radio("ReturnZero").Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_TRUE(daemon.WaitForLog(DONE));
    EXPECT_TRUE(InOrder(daemon.Messages(), {START, DONE}));
    EXPECT_EQ(daemon.CountInLog("bundle[radio] state changing[Starting] -> [Active]"), 1);
    EXPECT_EQ(daemon.Stop().status, 0);
}

TEST_F(AThreadItem, RunsOnAThreadWithItsName)
{
    Radio("SleepForever").Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return HasThread("radio.libradio."); }))
        << "the first fifteen characters of the bundle's name, a point and the item's name";
    EXPECT_EQ(daemon.CountInLog(DONE), 0);
    EXPECT_EQ(daemon.Descendants().size(), 0U);
}

TEST_F(AThreadItem, WhoseFunctionFailsIsLogged)
{
    Radio("ReturnThirtyThree").Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_TRUE(daemon.WaitForLog("entry func[ReturnThirtyThree] return fail."));
    EXPECT_EQ(daemon.CountInLog(DONE), 0);
    EXPECT_EQ(daemon.CountInLog("bundle[radio] state changing[Starting] -> [Active]"), 1)
        << "the failure does not change the state";
    EXPECT_EQ(RequestDelete("radio"), 200);
}

TEST_F(AThreadItem, WhoseLibraryIsMissingIsLogged)
{
    collection.Bundle("radio").ThreadMode().Library("libradio.so", "ReturnZero").Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_TRUE(daemon.WaitForLog("open dynamic lib[" + collection / "radio/./bin/libradio.so" + "] error : (null)."));
    EXPECT_EQ(RequestDelete("radio"), 200);
}

TEST_F(AThreadItem, WhoseFunctionIsMissingIsLogged)
{
    Radio("NoSuchFunction").Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_TRUE(daemon.WaitForLog("find entry func[NoSuchFunction] fail:(null)."));
    EXPECT_EQ(RequestDelete("radio"), 200);
}

TEST_F(AThreadItem, WhoseFunctionThrowsHarmsNothing)
{
    collection.Bundle("radio")
        .ThreadMode()
        .Library("libradio.so", "ThrowException", TEST_LIBRARY)
        .Library("libtuner.so", "ThrowNumber", TEST_LIBRARY)
        .Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_TRUE(daemon.WaitForLog("entry func[ThrowException] return fail."));
    EXPECT_TRUE(daemon.WaitForLog("entry func[ThrowNumber] return fail."));
    EXPECT_EQ(RequestDelete("radio"), 200);
    EXPECT_EQ(daemon.Stop().status, 0);
}

TEST_F(AThreadItem, ThatIsNoLibraryFailsAndLeavesThoseBeforeItRunning)
{
    collection.Bundle("radio")
        .ThreadMode()
        .Library("libradio.so", "SleepForever", TEST_LIBRARY)
        .Copy("radiod", TEST_SLEEPER)
        .Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(daemon.CountInLog("failed to start bundle[radio] :Invalid argument: "
                                "item[%s] can not be loaded in thread mode."),
              1);
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return HasThread("radio.libradio."); }));
    EXPECT_EQ(RequestDelete("radio"), 404);
    EXPECT_EQ(daemon.Stop().status, 0);
}

TEST_F(AThreadItem, IsCancelledWhenItsBundleIsStopped)
{
    Radio("SleepForever").Write();
    ASSERT_TRUE(daemon.StartServing());
    ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return HasThread("radio.libradio."); }));
    EXPECT_EQ(RequestDelete("radio"), 200);
    EXPECT_TRUE(daemon.WaitForLog("cancel done."));
    EXPECT_EQ(daemon.CountInLog("cancel tid["), 1);
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return !HasThread("radio.libradio."); }));
    EXPECT_TRUE(daemon.IsRunning());
    EXPECT_EQ(daemon.Stop().status, 0);
}

TEST_F(AThreadItem, WhoseLibraryIsStillBeingLoadedIsStoppedWithoutHarm)
{
    daemon.SetEnvironment("GATED_LIBRARY", notes.Path());
    collection.Bundle("radio").ThreadMode().Library("libradio.so", "Enter", GATED_LIBRARY).Write();
    staging.Bundle("tuner").ThreadMode().Library("libtuner.so", "ReturnZero", TEST_LIBRARY).Write();
    ASSERT_TRUE(daemon.StartServing());
    ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return Exists(Note("reached")); }));
    EXPECT_EQ(RequestDelete("radio"), 200);
    EXPECT_EQ(daemon.CountInLog("cancel done."), 1);
    WriteFile(Note("open"), "");
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return !HasThread("radio.libradio."); }));
    EXPECT_FALSE(Exists(Note("entered")));
    MoveIn("tuner");
    EXPECT_TRUE(daemon.WaitForLog("bundle[tuner] dyn lib[libtuner.so] activate done."));
    EXPECT_EQ(daemon.Stop().status, 0);
}

TEST_F(AThreadItem, ThatHasEndedCanBeStopped)
{
    Radio("ReturnZero").Write();
    ASSERT_TRUE(daemon.StartServing());
    ASSERT_TRUE(daemon.WaitForLog(DONE));
    EXPECT_EQ(RequestDelete("radio"), 200);
    EXPECT_EQ(daemon.CountInLog("cancel tid["), 1);
    EXPECT_EQ(daemon.CountInLog("cancel done."), 1);
    EXPECT_EQ(daemon.Stop().status, 0);
}

TEST_F(AThreadItem, ThatIgnoresItsCancellationKeepsRunningAndDoesNotBlockTheEnd)
{
    Radio("SleepThroughCancellation").Write();
    ASSERT_TRUE(daemon.StartServing());
    ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return HasThread("radio.libradio."); }));
    EXPECT_EQ(RequestDelete("radio"), 200);
    EXPECT_FALSE(Eventually(1s, [this] { return !HasThread("radio.libradio."); }));
    EXPECT_EQ(daemon.Stop().status, 0);
}

TEST_F(AThreadItem, KeepsItsLibraryLoadedAfterItsEnd)
{
    Radio("ReturnZero").Write();
    ASSERT_TRUE(daemon.StartServing());
    ASSERT_TRUE(daemon.WaitForLog(DONE));
    ASSERT_EQ(RequestDelete("radio"), 200);
    const std::string maps = ReadFile("/proc/" + std::to_string(daemon.Pid()) + "/maps");
    EXPECT_NE(maps.find("libradio.so (deleted)"), std::string::npos);
}

TEST_F(AThreadItem, MayRunBesideProcessItems)
{
    collection.Bundle("tuner").Copy("tunerd", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    for (int round = 1; round <= 3; ++round) {
        staging.Bundle("radio").ThreadMode().Library("libradio.so", "SleepForever", TEST_LIBRARY).Write();
        MoveIn("radio");
        ASSERT_TRUE(daemon.WaitForLog("bundle[radio] state changing[Starting] -> [Active]", round));
        ASSERT_EQ(RequestDelete("radio"), 200);
        ASSERT_TRUE(daemon.WaitForLog("find bundle[" + collection / "radio" + "] fail.", round));
    }
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return !HasThread("radio.libradio."); }));
    EXPECT_TRUE(ProcessOf::IsAlive(daemon.WaitForItem("tuner", "tunerd")));
    EXPECT_EQ(daemon.Stop().status, 0);
}
