// bundlectl delete, wait and events with a real server, beyond one request.
#include "bundlectl/verb_test.h"

#include "support/private_mnt.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

namespace {

const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

class DeleteVerb : public VerbTest {
public:
    Ended Delete(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), "delete");
        return Run(std::move(arguments));
    }
    bool Exists(const std::string& name) const { return std::filesystem::exists(collection / name); }
};

class WaitVerb : public VerbTest {};
class EventsVerb : public VerbTest {};

} // namespace

TEST_F(DeleteVerb, ForcesACrashLoop)
{
    collection.Bundle("radio").Item("tuner.sh", Shell("kill -SEGV $$")).Copy("clock", TEST_SLEEPER).Write();
    Serve();
    ASSERT_TRUE(daemon.WaitForLog("radio.tuner.sh relaunch done.", 3));
    const Ended ended = Delete({"radio", "--force", "--wait"});
    EXPECT_EQ(ended.status, 0) << ended.errors;
    EXPECT_TRUE(Tells(ended, "bundle \"radio\" is deleted.\n"));
    EXPECT_FALSE(Exists("radio"));
    EXPECT_EQ(Run({"status", "radio"}).status, 3);
}

TEST_F(DeleteVerb, ForcesABundleWhoseScriptItemIsMissing)
{
    collection.Bundle("radio").Item("tuner.sh").Write();
    Serve();
    ASSERT_TRUE(daemon.WaitForLog("radio.tuner.sh relaunch done.", 3));
    const Ended ended = Delete({"radio", "--force"});
    EXPECT_EQ(ended.status, 0) << ended.errors;
    EXPECT_FALSE(Exists("radio"));
}

TEST_F(DeleteVerb, ForcesABundleWhoseDirectoryHasGone)
{
    collection.Bundle("radio").Item("tuner.sh", Shell("exit 2")).Write();
    Serve();
    ASSERT_TRUE(daemon.WaitForLog("radio.tuner.sh relaunch done.", 2));
    // In the second after a death the bundle cannot be stopped, so it outlives its directory.
    std::filesystem::remove_all(collection / "radio");
    ASSERT_TRUE(
        daemon.WaitForLog("radio.tuner.sh relaunch done.", daemon.CountInLog("radio.tuner.sh relaunch done.") + 3));
    const Ended ended = Delete({"radio", "--force", "--wait"});
    EXPECT_EQ(ended.status, 0) << ended.errors;
    EXPECT_FALSE(Exists("radio"));
    EXPECT_EQ(Run({"status", "radio"}).status, 3);
}

TEST_F(DeleteVerb, DeletesSeveralAndTellsOfEach)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    collection.Bundle("clock").Write();
    Serve();
    const Ended ended = Delete({"radio", "clokc", "clock", "--json"});
    EXPECT_EQ(ended.status, 3);
    EXPECT_TRUE(Has(ended.errors, "Did you mean \"clock\"?"));
    EXPECT_TRUE(FollowsSchema(ended.output));
    EXPECT_TRUE(Tells(ended, "{\"name\":\"clock\",\"deleted\":true,\"exit_status\":0,"));
    EXPECT_TRUE(Tells(ended, "{\"name\":\"clokc\",\"deleted\":false,\"exit_status\":3,"));
    EXPECT_FALSE(Exists("radio"));
    EXPECT_FALSE(Exists("clock"));
}

TEST_F(WaitVerb, WaitsUntilBundlesAreActiveOrGone)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    Serve();
    EXPECT_EQ(Run({"wait", "radio", "--for", "active"}).status, 0);
    EXPECT_EQ(Run({"wait", "radio", "--for", "item:tuner"}).status, 0);
    staging.Bundle("clock").Write();
    Program coming({BUNDLECTL_PROGRAM, "wait", "radio", "clock", "--for", "active", "--json"});
    MoveIn("clock");
    EXPECT_EQ(coming.Wait(), 0) << coming.Errors();
    EXPECT_TRUE(FollowsSchema(coming.Output()));
    Program going({BUNDLECTL_PROGRAM, "wait", "radio", "--for", "gone"});
    ASSERT_EQ(RequestDelete("radio"), 200);
    EXPECT_EQ(going.Wait(), 0) << going.Errors();
}

TEST_F(WaitVerb, SaysWhatIsMissingWhenTheTimeIsOver)
{
    collection.Bundle("lonely").Requires("nowhere").Write();
    collection.Bundle("radio").Item("tuner").Write();
    Serve();
    const Ended active = Run({"wait", "lonely", "--for", "active", "--timeout", "1s"});
    EXPECT_EQ(active.status, 5);
    EXPECT_TRUE(Has(active.errors, "bundle \"lonely\" is not Active: bundlectl why lonely"));
    const Ended item = Run({"wait", "radio", "--for", "item:tuner", "--timeout", "1s"});
    EXPECT_EQ(item.status, 5);
    EXPECT_TRUE(Has(item.errors, "has no item \"tuner\" that is up"));
    EXPECT_EQ(Run({"wait", "radio", "--for", "gone", "--timeout", "1s"}).status, 5);
    EXPECT_EQ(Run({"wait", "radio", "--for", "serving"}).status, 2);
    EXPECT_EQ(Run({"wait", "--for", "active"}).status, 2);
    daemon.Stop();
    // Names the server: otherwise the server of a parallel test would be accepted.
    const std::string path = collection.Path();
    EXPECT_EQ(Run({"wait", "radio", "--for", "active", "--timeout", "1s", "--collection", path}).status, 4);
}

TEST_F(EventsVerb, RunsACommandAndPrintsJson)
{
    collection.Bundle("radio").Write();
    Serve();
    Program events({BUNDLECTL_PROGRAM, "events", "--count", "1", "--json", "--exec",
                    "echo $BUNDLE_EVENT_PUBLISHER $BUNDLE_EVENT > " + Note("told") + "; exit 7"});
    ASSERT_TRUE(Eventually(std::chrono::seconds(20), [] { return std::filesystem::exists(EVENT_FIFO); }));
    ASSERT_EQ(RequestDelete("radio"), 200);
    EXPECT_EQ(events.Wait(), 0);
    EXPECT_TRUE(FollowsSchema(events.Output()));
    EXPECT_EQ(ReadFile(Note("told")), "bundle_service app.event.init\n");
    EXPECT_TRUE(Has(events.Errors(), "the command ended with the status 7"));
}
