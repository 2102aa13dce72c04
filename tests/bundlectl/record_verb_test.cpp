// bundlectl record, with a real server.
#include "bundlectl/verb_test.h"

#include "model/recorder_file.h"
#include "support/private_mnt.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

namespace {

const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

class RecordVerb : public VerbTest {
public:
    std::vector<Model::RecordedLaunch> Recorded() const { return Model::RecorderFile(Note("launches")).Read(); }
};

} // namespace

TEST_F(RecordVerb, WritesDownWhatRunsAndWhatIsLaunched)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    Serve();
    const pid_t first = daemon.WaitForItem("radio", "tuner");
    ASSERT_NE(first, 0);
    ASSERT_EQ(Run({"record", "--once", "--file", Note("launches")}).status, 0);
    ASSERT_EQ(Recorded().size(), 1U);
    EXPECT_EQ(Recorded().front().pid, first);
    EXPECT_EQ(Recorded().front().bundle, "radio");
    EXPECT_EQ(Recorded().front().item, "tuner");
    EXPECT_EQ(Recorded().front().server, daemon.Pid());
    EXPECT_EQ(Recorded().front().boot, Model::BootId());

    Program recorder({BUNDLECTL_PROGRAM, "record", "--file", Note("launches")});
    ASSERT_TRUE(Eventually(std::chrono::seconds(20), [&] {
        ::kill(daemon.PidsOf("radio", "tuner").back(), SIGKILL);
        return Recorded().size() >= 2;
    }));
    EXPECT_EQ(Recorded()[1].item, "tuner");
    EXPECT_NE(Recorded()[1].pid, first);
}

TEST_F(RecordVerb, SaysThatTheFileCannotBeWritten)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    Serve();
    ASSERT_NE(daemon.WaitForItem("radio", "tuner"), 0);
    const Ended ended = Run({"record", "--once", "--file", Note("missing/launches")});
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(Has(ended.errors, "cannot be written: No such file or directory"));
}

TEST_F(RecordVerb, PrintsEachLaunchThatItWritesDown)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Copy("mixer", TEST_SLEEPER).Write();
    Serve();
    const pid_t first = daemon.WaitForItem("radio", "tuner");
    ASSERT_NE(first, 0);
    const Ended ended = Run({"record", "--once", "--json", "--file", Note("launches")});
    EXPECT_EQ(ended.status, 0) << ended.errors;
    EXPECT_TRUE(FollowsSchema(ended.output));
    EXPECT_TRUE(Tells(ended, R"("bundle":"radio","item":"mixer",)"));
    EXPECT_TRUE(Tells(ended, R"("bundle":"radio","item":"tuner","pid":)" + std::to_string(first) + R"(,"started":")"));
    EXPECT_TRUE(Tells(ended, R"("server":)" + std::to_string(daemon.Pid()) + '}'));
    EXPECT_EQ(Run({"record", "--once", "--json", "--file", Note("launches")}).output, "") << "both are written down";

    Program recorder({BUNDLECTL_PROGRAM, "record", "--json", "--file", Note("launches")});
    ASSERT_TRUE(Eventually(std::chrono::seconds(20), [&] {
        ::kill(daemon.PidsOf("radio", "tuner").back(), SIGKILL);
        return Has(recorder.Output(), R"("item":"tuner")");
    })) << recorder.Errors();
    recorder.Signal(SIGTERM);
    recorder.Wait();
    EXPECT_TRUE(FollowsSchema(recorder.Output()));
}

TEST_F(RecordVerb, EndsWhenItsOutputIsNoLongerRead)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    Serve();
    ASSERT_NE(daemon.WaitForItem("radio", "tuner"), 0);
    const Ended ended = RunToEnd(
        "/bin/sh", {"-c", "exec " BUNDLECTL_PROGRAM " record --json --file " + Note("launches") + " > /dev/full"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.errors, "bundlectl: standard output takes no more.\n");
    EXPECT_EQ(Recorded().size(), 1U) << "what cannot be printed is written down all the same";
}

TEST_F(RecordVerb, SaysThatThereIsNothingToRecordWithoutAServer)
{
    const Ended ended = Run({"record", "--once", "--collection", collection.Path(), "--file", Note("launches")});
    EXPECT_EQ(ended.status, 4);
    EXPECT_TRUE(Has(ended.errors, "bundlectl: no bundle server runs.\n")) << ended.errors;
}
