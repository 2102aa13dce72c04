#include "system/system_test.h"

#include <sys/resource.h>

#include <filesystem>

namespace {

using namespace std::chrono_literals;

class StartingTheServer : public SystemTest {};
class StartingWithHugeLimits : public SystemTest {};

} // namespace

TEST_F(StartingTheServer, ServesWhenTheCollectionIsEmpty)
{
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(daemon.CountInLog("load bundle from"), 0);
    EXPECT_EQ(daemon.CountInLog("child process create"), 0);
    EXPECT_EQ(RequestDelete("radio"), 404);
    EXPECT_EQ(daemon.Stop().status, 0);
    EXPECT_EQ(daemon.Errors(), "");
}

TEST_F(StartingTheServer, SkipsEntriesThatAreNoDirectories)
{
    WriteFile(collection / "README", "bundles are directories\n");
    std::filesystem::create_symlink("nowhere", collection / "dangling");
    std::filesystem::create_symlink("looping", collection / "looping");
    collection.Bundle("radio").Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(daemon.CountInLog("load bundle from"), 1);
    EXPECT_EQ(daemon.CountInLog("bundle[radio] state changing[Starting] -> [Active]"), 1);
    EXPECT_EQ(daemon.Stop().status, 0);
}

TEST_F(StartingTheServer, ContinuesAfterABrokenBundle)
{
    collection.Bundle("broken").Manifest("[global]\nbundle_name = broken\n").Write();
    collection.Bundle("empty").NoManifest().Write();
    collection.Bundle("radio").Write();
    collection.Bundle("strange").Mode("7").Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(daemon.CountInLog("failed to load bundles from " + collection / "broken" +
                                ":Not found: global.bundle_load_mode"),
              1);
    EXPECT_EQ(daemon.CountInLog("failed to load bundles from " + collection / "empty" +
                                ":File not found: [./BundleManifest.ini] not found."),
              1);
    EXPECT_EQ(daemon.CountInLog("create bundle activator fail."), 1);
    EXPECT_EQ(daemon.CountInLog("bundle[radio] state changing[Starting] -> [Active]"), 1);
    EXPECT_EQ(daemon.Stop().status, 0);
}

TEST_F(StartingTheServer, EndsWhenTheNameOfAnItemIsShorterThanThreeCharacters)
{
    collection.Bundle("radio").Item("so").Write();
    daemon.Start();
    EXPECT_EQ(daemon.WaitForEnd().value_or(ProcessEnd{}).status, 70);
    EXPECT_EQ(daemon.Errors(), "item name[so] is shorter than three characters\n");
    EXPECT_EQ(daemon.Messages().back(), "parse bundle manifest fail.");
}

TEST_F(StartingTheServer, SurvivesAShortItemNameInABundleThatIsAddedLater)
{
    ASSERT_TRUE(daemon.StartServing());
    staging.Bundle("radio").Item("so").Write();
    MoveIn("radio");
    EXPECT_TRUE(daemon.WaitForLog("failed to load bundle from [" + collection / "radio" + "]."));
    EXPECT_EQ(RequestDelete("radio"), 404);
    EXPECT_EQ(daemon.Stop().status, 0);
}

TEST_F(StartingTheServer, UnloadsBundlesThatCannotBeResolvedOrStarted)
{
    collection.Bundle("alone").Requires("nobody").Uninstall(Shell("echo alone >> " + Note("gone"))).Write();
    collection.Bundle("circle").Requires("round").Uninstall(Shell("echo circle >> " + Note("gone"))).Write();
    collection.Bundle("player").Requires("circle").Uninstall(Shell("echo player >> " + Note("gone"))).Write();
    collection.Bundle("round").Requires("circle").Uninstall(Shell("echo round >> " + Note("gone"))).Write();
    collection.Bundle("threads")
        .ThreadMode()
        .Item("threads.sh", "")
        .Uninstall(Shell("echo threads >> " + Note("gone")))
        .Write();
    ASSERT_TRUE(daemon.StartServing());
    const std::vector<std::string> expected{
        "failed to resolve bundle[alone] :Invalid argument: required bundle :[nobody] not found.",
        "failed to resolve bundle[circle] :Invalid argument: bundle circular reference occur : <round,circle>.",
        "failed to resolve bundle[player] :Invalid argument: bundle circular reference occur : <round,circle>.",
        "failed to resolve bundle[round] :Invalid argument: bundle circular reference occur : <circle,round>.",
        "bundle[threads] state changing[Starting] -> [Resolved]",
        "failed to start bundle[threads] :Invalid argument: item[%s] can not be loaded in thread mode."};
    EXPECT_TRUE(InOrder(daemon.Messages(), expected));
    for (const std::string& message : expected) {
        EXPECT_EQ(daemon.CountInLog(message), 1) << message;
    }
    for (const char* const bundle : {"alone", "circle", "player", "round", "threads"}) {
        EXPECT_EQ(RequestDelete(bundle), 404) << bundle;
    }
    EXPECT_EQ(ReadFile(Note("gone")), "alone\ncircle\nplayer\nround\nthreads\n");
}

TEST_F(StartingTheServer, RunsInstallScriptsInItsOwnDirectoryWithoutArguments)
{
    collection.Bundle("radio")
        .Install(Shell("pwd > " + Note("installed") + "; echo $# >> " + Note("installed")))
        .Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(ReadFile(Note("installed")), std::filesystem::current_path().string() + "\n0\n");
}

TEST_F(StartingTheServer, LoadsOnceADirectoryThatIsAddedWhileAllBundlesAreLoaded)
{
    collection.Bundle("slow")
        .Install(Shell(": > " + Note("begun") + "; while [ ! -e " + Note("moved") + " ]; do sleep 0.01; done"))
        .Write();
    staging.Bundle("late").Install(Shell("echo x >> " + Note("installs"))).Write();
    daemon.Start();
    ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return Exists(Note("begun")); }));
    MoveIn("late");
    // Longer than the watcher's scan and its handler's pause, so the event is raised while the others are loaded.
    ASSERT_TRUE(daemon.WaitForLog("dir item add event happen."));
    EXPECT_FALSE(daemon.WaitForLog("add a new bundle dir.", 1, 2s));
    WriteFile(Note("moved"), "");
    EXPECT_TRUE(daemon.WaitForLog("bundle[late] state changing[Starting] -> [Active]"));
    ASSERT_TRUE(daemon.WaitForLog("bundle server start running..."));
    EXPECT_FALSE(daemon.WaitForLog("load bundle[late] success.", 2, 2s));
    EXPECT_EQ(daemon.CountInLog("bundle[late] already exists."), 0);
    EXPECT_EQ(ReadFile(Note("installs")), "x\n");
    EXPECT_EQ(RequestDelete("late"), 200);
}

// Start-up and the watcher's handler work on the same bundle. One of them resolves and starts it; the other must not
// unload it.
TEST_F(StartingTheServer, KeepsABundleThatIsAddedWhileAllBundlesAreResolvedAndStarted)
{
    Interpose("HOLD_AFTER", "1: ResolveAllBundles...\n2: load bundle[late] done.\n2: ResolveAllBundles done.");
    collection.Bundle("slow")
        .Install(Shell(": > " + Note("begun") + "; while [ ! -e " + Note("moved") + " ]; do sleep 0.01; done"))
        .Write();
    staging.Bundle("late").Write();
    daemon.Start();
    ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return Exists(Note("begun")); }));
    MoveIn("late");
    ASSERT_TRUE(daemon.WaitForLog("dir item add event happen."));
    // The handler first pauses for a second. Only then does it wait for start-up.
    EXPECT_FALSE(daemon.WaitForLog("add a new bundle dir.", 1, 2s));
    WriteFile(Note("moved"), "");
    ASSERT_TRUE(daemon.WaitForLog("bundle server start running..."));
    EXPECT_TRUE(daemon.WaitForLog("bundle[late] state changing[Starting] -> [Active]"));
    EXPECT_EQ(RequestDelete("late"), 200);
}

TEST_F(StartingTheServer, LoadsOnceADirectoryThatIsAddedBeforeAllBundlesAreLoaded)
{
    Interpose("HOLD_AFTER", "3: create BundleManager done.");
    staging.Bundle("late").Install(Shell("echo x >> " + Note("installs"))).Write();
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog("create BundleManager done."));
    MoveIn("late");
    ASSERT_TRUE(daemon.WaitForLog("dir item add event happen."));
    ASSERT_EQ(daemon.CountInLog("LoadAllBundles..."), 0) << "this machine is too slow";
    EXPECT_TRUE(daemon.WaitForLog("bundle[late] state changing[Starting] -> [Active]"));
    EXPECT_FALSE(daemon.WaitForLog("bundle[late] already exists.", 1, 2s));
    EXPECT_EQ(ReadFile(Note("installs")), "x\n");
    EXPECT_EQ(RequestDelete("late"), 200);
}

TEST_F(StartingTheServer, LoadsOnceADirectoryThatIsAddedWhileAllBundlesAreStarted)
{
    collection.Bundle("slow")
        .Copy("slow1", TEST_SLEEPER)
        .Copy("slow2", TEST_SLEEPER)
        .Copy("slow3", TEST_SLEEPER)
        .Copy("slow4", TEST_SLEEPER)
        .Write();
    staging.Bundle("late").Install(Shell("echo x >> " + Note("installs"))).Copy("lated", TEST_SLEEPER).Write();
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog("start bundle[slow] activator..."));
    MoveIn("late");
    EXPECT_TRUE(daemon.WaitForLog("bundle[late] state changing[Starting] -> [Active]"));
    ASSERT_TRUE(daemon.WaitForLog("bundle server start running..."));
    EXPECT_EQ(daemon.CountInLog("load bundle[late] success."), 1);
    EXPECT_EQ(daemon.PidsOf("late", "lated").size(), 1U);
    EXPECT_EQ(ReadFile(Note("installs")), "x\n");
}

TEST_F(StartingTheServer, TakesASecondForEachItemInProcessMode)
{
    collection.Bundle("radio").Copy("one", TEST_SLEEPER).Copy("two", TEST_SLEEPER).Write();
    collection.Bundle("tuner").Copy("three", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_GE(std::chrono::steady_clock::now() - daemon.StartTime(), 3s);
}

TEST_F(StartingWithHugeLimits, RunsScriptsAtOnce)
{
    constexpr rlim_t hugeLimit = 1'000'000; // about the kernel's default for the highest limit
    const rlimit limit{hugeLimit, hugeLimit};
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    if (before.rlim_max < hugeLimit && ::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        GTEST_SKIP() << "the limit of descriptors may not be raised here";
    }
    daemon.SetPreparation([&limit] { ::setrlimit(RLIMIT_NOFILE, &limit); });
    for (int i = 0; i < 30; ++i) {
        collection.Bundle("bundle" + std::to_string(i)).Install(Shell("echo x >> " + Note("installs"))).Write();
    }
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_NE(ProcessOf::Limit(daemon.Pid(), "Max open files").find("1000000"), std::string::npos);
    EXPECT_EQ(Lines(ReadFile(Note("installs"))).size(), 30U);
    // Thirty children that each close a million descriptors take several seconds of processor time.
    EXPECT_LT(ProcessOf::ProcessorTimeWithChildren(daemon.Pid()), 2s);
}
