// bundlectl why: each reason, produced by a real server.
#include "bundlectl/verb_test.h"

#include "support/private_mnt.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>

namespace {

const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

class Why : public VerbTest {
public:
    /// Reads the reasons for a faulty bundle.
    static Ended Ask(const std::string& bundle)
    {
        Ended ended = Run({"why", bundle});
        EXPECT_EQ(ended.status, 1) << ended.output << ended.errors;
        EXPECT_TRUE(FollowsSchema(Run({"why", bundle, "--json"}).output));
        return ended;
    }
};

constexpr const char RECOMPUTED[] = "the log does not say";

} // namespace

TEST_F(Why, SaysSinceWhenABundleRuns)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    Serve();
    ASSERT_NE(daemon.WaitForItem("radio", "tuner"), 0);
    const Ended ended = Run({"why", "radio"});
    EXPECT_EQ(ended.status, 0) << ended.output;
    EXPECT_TRUE(Tells(ended, "radio is Active, 1 of 1 items up."));
    EXPECT_TRUE(Tells(ended, "It has run for "));
    const Ended evidence = Run({"why", "radio", "--evidence"});
    EXPECT_TRUE(Tells(evidence, "bundle[radio] state changing[Starting] -> [Active]"));
}

TEST_F(Why, NamesARequiredBundleThatIsMissing)
{
    collection.Bundle("radio").Requires("tuner").Write();
    collection.Bundle("tuner").Requires("power").Write();
    Serve();
    const Ended ended = Ask("radio");
    EXPECT_TRUE(Tells(ended, "It requires \"tuner\", which requires \"power\", which is not there."));
    EXPECT_TRUE(Tells(ended, "Way out: Install \"power\""));
    EXPECT_TRUE(Tells(Run({"why", "radio", "--evidence"}), "failed to resolve bundle[radio]"));
}

TEST_F(Why, SpellsOutACircle)
{
    collection.Bundle("a").Requires("b").Write();
    collection.Bundle("b").Requires("a").Write();
    Serve();
    ::setenv("LC_ALL", "C.UTF-8", 1);
    EXPECT_TRUE(Tells(Ask("a"), "circle: a \u2192 b \u2192 a."));
    ::setenv("LC_ALL", "C", 1);
    EXPECT_TRUE(Tells(Ask("a"), "circle: a -> b -> a."));
}

TEST_F(Why, NamesBothDirectoriesOfADuplicate)
{
    collection.BundleIn("one").Name("radio").Write();
    collection.BundleIn("two").Name("radio").Write();
    Serve();
    const Ended ended = Ask("radio");
    EXPECT_TRUE(Tells(ended, collection / "one"));
    EXPECT_TRUE(Tells(ended, collection / "two"));
    EXPECT_TRUE(Tells(ended, "has the same bundle_name \"radio\" as"));
}

TEST_F(Why, NamesARefusedMode)
{
    collection.Bundle("radio").Mode("7").Write();
    Serve();
    EXPECT_TRUE(Tells(Ask("radio"), "bundle_load_mode = 7 is refused."));
}

TEST_F(Why, NamesTheLineOfAManifest)
{
    collection.BundleIn("radio")
        .Manifest("[global]\nbundle_name = radio\nbundle_load_mode = 0\n\n[one]\nentry_func = run\n")
        .Write();
    Serve();
    EXPECT_TRUE(Tells(Ask("radio"), "BundleManifest.ini:5: Not found: one.item_name."));
}

TEST_F(Why, NamesADirectoryWithoutAManifest)
{
    collection.BundleIn("radio").NoManifest().Write();
    Serve();
    EXPECT_TRUE(Tells(Ask("radio"), "has no BundleManifest.ini."));
}

TEST_F(Why, NamesAStatusThatAsksForNoRelaunch)
{
    collection.Bundle("radio").Item("tuner.sh", Shell("exit 1")).Write();
    Serve();
    ASSERT_TRUE(daemon.WaitForLog("does not need relaunch"));
    const Ended ended = Ask("radio");
    EXPECT_TRUE(Tells(ended, "The item tuner.sh ended "));
    EXPECT_TRUE(Tells(ended, " ago with status 1, which asks for no relaunch."));
    EXPECT_TRUE(Tells(ended, "Last ends of its items:"));
    EXPECT_TRUE(Tells(Run({"why", "radio", "--evidence"}), "normal termination, exit status: 1."));
}

TEST_F(Why, NamesACrashLoop)
{
    collection.Bundle("radio").Item("tuner.sh", Shell("kill -SEGV $$")).Write();
    Serve();
    ASSERT_TRUE(daemon.WaitForLog("radio.tuner.sh relaunch done.", 4));
    const Ended ended = Ask("radio");
    EXPECT_TRUE(Tells(ended, "The item tuner.sh dies again and again"));
    EXPECT_TRUE(Tells(ended, "the last end was SIGSEGV"));
    EXPECT_TRUE(Tells(ended, "bundlectl delete radio"));
}

TEST_F(Why, FindsOutWhyAProgramCannotBeExecuted)
{
    collection.Bundle("absent").Item("itemd").Write();
    collection.Bundle("plain").Item("itemd", "#!/bin/sh\n").Write();
    std::filesystem::permissions(collection / "plain/bin/itemd", std::filesystem::perms::owner_read);
    collection.Bundle("odd").Item("itemd", "#!/no/such/interpreter\n").Write();
    collection.Bundle("text").Item("itemd", "hello\n").Write();
    Serve();
    ASSERT_TRUE(daemon.WaitForLog("does not need relaunch", 4));
    EXPECT_TRUE(Tells(Ask("absent"), "absent/bin/itemd does not exist."));
    EXPECT_TRUE(Tells(Ask("plain"), "plain/bin/itemd may not be executed."));
    EXPECT_TRUE(Tells(Ask("plain"), "Way out: chmod +x "));
    EXPECT_TRUE(Tells(Ask("odd"), "needs the interpreter /no/such/interpreter, which does not exist."));
    EXPECT_TRUE(Tells(Ask("text"), "names its interpreter"));
    EXPECT_TRUE(Tells(Ask("absent"), RECOMPUTED));
}

TEST_F(Why, FindsOutWhatTheLogLeavesOutAboutALibrary)
{
    collection.Bundle("absent").ThreadMode().Library("tuner.so", "run").Write();
    collection.Bundle("text").ThreadMode().Library("tuner.so", "run").Write();
    std::filesystem::create_directories(collection / "text/bin");
    WriteFile(collection / "text/bin/tuner.so", "no library");
    collection.Bundle("other").ThreadMode().Library("tuner.so", "no_such_function", TEST_LIBRARY).Write();
    Serve();
    ASSERT_TRUE(daemon.WaitForLog("(null)", 3));
    EXPECT_TRUE(Tells(Ask("absent"), "absent/bin/tuner.so does not exist."));
    EXPECT_TRUE(Tells(Ask("text"), "text/bin/tuner.so is no library."));
    EXPECT_TRUE(Tells(Ask("other"), "has no function \"no_such_function\"."));
    EXPECT_TRUE(Tells(Ask("other"), RECOMPUTED));
}

TEST_F(Why, NamesAnItemOfThreadModeThatIsNoLibrary)
{
    collection.Bundle("tuner").ThreadMode().Item("tunerd").Write();
    collection.Bundle("radio").Requires("tuner").Write();
    Serve();
    EXPECT_TRUE(Tells(Ask("tuner"), "Its mode is that of threads"));
    EXPECT_TRUE(Tells(Ask("radio"), "It requires \"tuner\", which does not start."));
}

TEST_F(Why, NamesTheScriptThatHoldsTheManager)
{
    collection.Bundle("radio").Write();
    Serve();
    staging.Bundle("slow").Install(Shell("exec sleep 1000")).Write();
    MoveIn("slow");
    ASSERT_TRUE(daemon.WaitForLog("run script["));
    staging.Bundle("next").Write();
    MoveIn("next");
    ASSERT_TRUE(Eventually(std::chrono::seconds(20), [] {
        return Has(Run({"why", "next"}).output, " has run for ");
    })) << Run({"why", "next"}).output;
    const Ended ended = Ask("next");
    EXPECT_TRUE(Tells(ended, "The script install.sh of the bundle \"slow\" has run for"));
    EXPECT_TRUE(Tells(ended, "end it: kill "));
    EXPECT_TRUE(Tells(Ask("slow"), "Its script install.sh has run for"));
}

TEST_F(Why, FindsOutWhyABundleThatCameDidNotStart)
{
    Serve();
    staging.Bundle("radio").Requires("nowhere").Write();
    MoveIn("radio");
    ASSERT_TRUE(daemon.WaitForLog("load bundle[radio] done."));
    ASSERT_TRUE(Eventually(std::chrono::seconds(20), [] {
        return Has(Run({"why", "radio"}).output, "nowhere");
    })) << Run({"why", "radio"}).output;
    const Ended ended = Ask("radio");
    EXPECT_TRUE(Tells(ended, "It requires \"nowhere\", which is not there."));
    EXPECT_TRUE(Tells(ended, RECOMPUTED));
}

TEST_F(Why, TellsAStopOfTheServerFromACrash)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    Serve();
    const pid_t item = daemon.WaitForItem("radio", "tuner");
    ASSERT_NE(item, 0);
    ::kill(item, SIGTERM); // as a service manager does to the whole group
    ASSERT_TRUE(daemon.WaitForLog("radio.tuner[" + std::to_string(item) + "] abnormal termination"));
    daemon.Stop(SIGKILL);
    const Ended ended = Run({"why", "radio", "--collection", collection.Path(), "--log", daemon.LogFile()});
    EXPECT_EQ(ended.status, 4);
    EXPECT_TRUE(Tells(ended, "No bundle server runs."));
    EXPECT_TRUE(Tells(ended, "SIGTERM, stopped with its server"));
}

TEST_F(Why, SaysThatTheServerIsStillStarting)
{
    BundleBuilder radio = collection.Bundle("radio");
    for (int item = 0; item < 15; ++item) { // a second each
        radio.Item("item" + std::to_string(item) + ".sh", Shell("exec sleep 1000"));
    }
    radio.Write();
    collection.Bundle("zoo").Write();
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog("bundle[radio] state changing[Resolved] -> [Starting]"));
    EXPECT_TRUE(Tells(Ask("zoo"), "The server is still starting"));
    EXPECT_TRUE(Tells(Ask("radio"), "It is being started"));
}
