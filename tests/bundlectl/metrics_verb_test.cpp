// bundlectl metrics, with a real server.
#include "bundlectl/verb_test.h"

#include "support/private_mnt.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>

namespace {

const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

class Metrics : public VerbTest {};

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
