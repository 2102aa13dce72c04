// bundlectl metrics and record, with a real server.
#include "bundlectl/verb_test.h"

#include "model/recorder_file.h"
#include "support/private_mnt.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>

namespace {

const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

class Metrics : public VerbTest {};

class RecordVerb : public VerbTest {
public:
    std::vector<Model::RecordedLaunch> Recorded() const { return Model::RecorderFile(Note("launches")).Read(); }
};

} // namespace

TEST_F(Metrics, CountWhatHasHappened)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Item("once.sh", Shell("exit 3")).Install("true").Write();
    collection.Bundle("lonely").Requires("nowhere").Write();
    Serve();
    ::kill(daemon.WaitForItem("radio", "tuner"), SIGABRT);
    ASSERT_TRUE(daemon.WaitForLog("radio.tuner relaunch done."));
    ASSERT_TRUE(daemon.WaitForLog("does not need relaunch"));
    const Ended ended = Run({"metrics"});
    EXPECT_EQ(ended.status, 0) << ended.errors;
    for (const char* const line :
         {"bundle_server_up 1\n", "bundle_server_serving 1\n", "bundles{state=\"Active\"} 1\n",
          "bundle_active{bundle=\"lonely\"} 0\n", "bundle_item_up{bundle=\"radio\",item=\"tuner\"} 1\n",
          "bundle_item_up{bundle=\"radio\",item=\"once.sh\"} 0\n",
          "bundle_item_starts_total{bundle=\"radio\",item=\"tuner\"} 2\n",
          "bundle_item_relaunches_total{bundle=\"radio\",item=\"tuner\"} 1\n",
          "bundle_item_ends_total{bundle=\"radio\",item=\"tuner\",cause=\"SIGABRT\"} 1\n",
          "bundle_item_ends_total{bundle=\"radio\",item=\"once.sh\",cause=\"status 3\"} 1\n",
          "bundle_script_seconds_total{bundle=\"radio\",script=\"install.sh\"} ", "bundle_server_monitor_dead 0\n",
          "bundle_server_manager_held_seconds 0\n", "bundle_orphans 0\n", "bundle_item_pss_bytes{bundle=\"radio\""}) {
        EXPECT_TRUE(Tells(ended, line));
    }
    EXPECT_EQ(ended.output.substr(ended.output.size() - 6), "# EOF\n");
    EXPECT_TRUE(FollowsSchema(Run({"metrics", "--json"}).output));
}

TEST_F(Metrics, AreWrittenForTheNodeExporterInOneStep)
{
    collection.BundleIn("x").Manifest("[global]\nbundle_name=a\"b\\c\nbundle_load_mode=0\n").Write();
    Serve();
    const std::string file = Note("bundles.prom");
    const Ended ended = Run({"metrics", "--textfile", file});
    EXPECT_EQ(ended.status, 0) << ended.errors;
    EXPECT_FALSE(std::filesystem::exists(file + ".new"));
    EXPECT_TRUE(Has(ReadFile(file), "bundle_server_up 1\n"));
    EXPECT_EQ(Run({"metrics", "--textfile", Note("missing/file")}).status, 1);
    if (::access("/usr/bin/promtool", X_OK) != 0) {
        GTEST_SKIP() << "promtool is not installed (package prometheus), so nothing has checked the format";
    }
    const Ended checked = RunToEnd("/bin/sh", {"-c", "exec promtool check metrics < " + file});
    EXPECT_EQ(checked.status, 0) << checked.output << checked.errors << ReadFile(file);
}

TEST_F(Metrics, SayThatNoServerRuns)
{
    const Ended ended = Run({"metrics", "--collection", collection.Path()});
    EXPECT_EQ(ended.status, 0);
    EXPECT_TRUE(Tells(ended, "bundle_server_up 0\n"));
}

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
