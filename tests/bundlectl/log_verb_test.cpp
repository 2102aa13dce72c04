// bundlectl log, with a real server and on recorded logs.
#include "bundlectl/verb_test.h"

#include "support/private_mnt.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>

namespace {

const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

class TheLog : public VerbTest {
public:
    /// Two bundles, one of which has a script and an item that dies.
    void ServeTwoBundles()
    {
        collection.Bundle("clock").Copy("clockd", TEST_SLEEPER).Write();
        collection.Bundle("radio").Install(Shell("exit 0")).Copy("tuner", TEST_SLEEPER).Write();
        Serve();
        ::kill(daemon.WaitForItem("radio", "tuner"), SIGABRT);
        ASSERT_TRUE(daemon.WaitForLog("radio.tuner relaunch done."));
    }
};

} // namespace

TEST_F(TheLog, IsShownAsItIs)
{
    ServeTwoBundles();
    const Ended ended = Run({"log"});
    EXPECT_EQ(ended.status, 0) << ended.errors;
    EXPECT_EQ(Lines(ended.output).size(), daemon.Log().size());
    EXPECT_TRUE(Tells(ended, " - bundle[radio] state changing[Starting] -> [Active]\n"));
    EXPECT_TRUE(Tells(ended, " E radio.tuner["));
}

TEST_F(TheLog, IsShownOfOneBundleWithItsScriptsAndChildren)
{
    ServeTwoBundles();
    const Ended ended = Run({"log", "radio"});
    EXPECT_TRUE(Tells(ended, "run script["));
    EXPECT_TRUE(Tells(ended, "execute binary["));
    EXPECT_TRUE(Tells(ended, "abnormal termination, signal: 6."));
    EXPECT_FALSE(Has(ended.output, "clock"));
}

TEST_F(TheLog, IsShownOfOneLevel)
{
    ServeTwoBundles();
    const Ended ended = Run({"log", "radio", "--level", "error"});
    for (const std::string& line : Lines(ended.output)) {
        EXPECT_TRUE(Has(line, " E ")) << line;
    }
    EXPECT_TRUE(Tells(ended, "radio.tuner["));
}

TEST_F(TheLog, IsShownOfATime)
{
    Serve();
    EXPECT_TRUE(Tells(Run({"log", "--since", "1h"}), "init bundle server done."));
    EXPECT_EQ(Run({"log", "--until", "1h"}).output, "");
    EXPECT_EQ(Run({"log", "--since", "soon"}).status, 2);
}

TEST_F(TheLog, IsFollowedAcrossItsRotation)
{
    Serve();
    const std::string log = daemon.LogFile();
    Program follower({BUNDLECTL_PROGRAM, "log", "-f", "--log", log});
    ASSERT_TRUE(Eventually(std::chrono::seconds(20), [&] { return Has(follower.Output(), "start running..."); }));
    std::filesystem::copy_file(log, log + ".1");
    std::filesystem::resize_file(log, 0);
    staging.Bundle("radio").Write();
    MoveIn("radio");
    EXPECT_TRUE(Eventually(std::chrono::seconds(20), [&] { return Has(follower.Output(), "[Starting] -> [Active]"); }))
        << follower.Output();
    follower.Signal(SIGTERM);
}

TEST_F(TheLog, ComesFromStandardInput)
{
    Serve();
    const Ended ended =
        RunToEnd("/bin/sh", {"-c", std::string("exec " BUNDLECTL_PROGRAM " log --log - < ") + daemon.LogFile()});
    EXPECT_EQ(ended.status, 0);
    EXPECT_TRUE(Tells(ended, "init bundle server done."));
}

TEST_F(TheLog, OfABundleThatThereIsNotIsRefused)
{
    Serve();
    const Ended ended = Run({"log", "nowhere"});
    EXPECT_EQ(ended.status, 3);
    EXPECT_TRUE(Has(ended.errors, "there is no bundle \"nowhere\"")) << ended.errors;
}

TEST_F(TheLog, ThatIsNotThereIsSaidToBeMissing)
{
    const Ended ended = Run({"log", "--log", "/no/such/log"});
    EXPECT_EQ(ended.status, 4);
    EXPECT_TRUE(Has(ended.errors, "/no/such/log")) << ended.errors;
}

TEST_F(TheLog, ThatCannotBeReadIsReportedAndEndsEachVerbThatNeedsIt)
{
    Serve();
    WriteProgram(Note("journalctl"), "#!/bin/sh\nexit 3\n");
    for (const std::string verb : {"log", "timeline", "blame", "record"}) {
        const Ended ended =
            RunToEnd("/bin/sh", {"-c", "PATH=" + Note("") + " exec " BUNDLECTL_PROGRAM " " + verb + " --log journal " +
                                           (verb == "record" ? "--file " + Note("launches") : "")});
        EXPECT_EQ(ended.status, 4) << verb << ended.output << ended.errors;
        EXPECT_TRUE(Has(ended.errors, "journalctl has failed with status 3")) << verb << ended.errors;
    }
}

TEST_F(TheLog, IsWrittenForProgramsToo)
{
    ServeTwoBundles();
    const Ended ended = Run({"log", "radio", "--json"});
    EXPECT_GT(Lines(ended.output).size(), 10U);
    EXPECT_TRUE(FollowsSchema(ended.output));
    EXPECT_TRUE(Tells(ended, "\"bundle\":\"radio\""));
}
