// bundlectl timeline and blame, with a real server and without one.
#include "bundlectl/verb_test.h"

#include "support/private_mnt.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

class TimelineVerb : public VerbTest {
public:
    // The pictures are those of a terminal without UTF-8.
    void SetUp() override { ::setenv("LC_ALL", "C", 1); }

    Ended Timeline(std::vector<std::string> arguments = {})
    {
        arguments.insert(arguments.begin(), "timeline");
        return Run(std::move(arguments));
    }

    std::string File(const std::string& name, const std::string& content) const
    {
        WriteFile(notes / name, content);
        return notes / name;
    }
};

/// The row of a bundle, without its name. Empty: no row.
std::string RowOf(const std::string& picture, const std::string& name)
{
    for (const std::string& line : Lines(picture)) {
        if (line.substr(2, name.size() + 1) == name + " ") {
            return line.substr(2 + name.size());
        }
    }
    return "";
}

} // namespace

TEST_F(TimelineVerb, ShowsWhoWaitedForWhom)
{
    collection.Bundle("base").Install("sleep 0.3").Copy("based", TEST_SLEEPER).Write();
    collection.Bundle("radio").Requires("base").Copy("tuner", TEST_SLEEPER).Write();
    collection.Bundle("clock").Write();
    Serve();
    const Ended ended = Timeline();
    EXPECT_EQ(ended.status, 0) << ended.errors;
    EXPECT_TRUE(Tells(ended, "* the chain that took longest"));
    EXPECT_TRUE(Tells(ended, "base -> radio\n"));
    EXPECT_TRUE(Has(RowOf(ended.output, "base"), "SSSS"));
    EXPECT_TRUE(Has(RowOf(ended.output, "base"), "L"));
    EXPECT_FALSE(Has(RowOf(ended.output, "clock"), "L"));
    for (const std::string& line : Lines(ended.output)) {
        EXPECT_LE(line.size(), 80U) << line;
    }
}

TEST_F(TimelineVerb, MarksLaunchesDeathsRelaunchesEndsAndFailures)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Item("once.sh", Shell("exit 3")).Write();
    collection.Bundle("lonely").Requires("nowhere").Write();
    Serve();
    ::kill(daemon.WaitForItem("radio", "tuner"), SIGABRT);
    ASSERT_TRUE(daemon.WaitForLog("radio.tuner relaunch done."));
    ASSERT_TRUE(daemon.WaitForLog("does not need relaunch"));
    const Ended picture = Timeline({"--from", "10m"});
    const std::string row = RowOf(picture.output, "radio");
    EXPECT_TRUE(Has(row, "X")) << picture.output;
    EXPECT_TRUE(Has(RowOf(picture.output, "lonely"), "!")) << picture.output;

    const Ended json = Timeline({"--from", "10m", "--json"});
    EXPECT_TRUE(FollowsSchema(json.output));
    EXPECT_TRUE(Tells(json, "{\"kind\":\"death\""));
    EXPECT_TRUE(Tells(json, "\"text\":\"SIGABRT\"}"));
    EXPECT_TRUE(Tells(json, "{\"kind\":\"relaunch\""));
    EXPECT_TRUE(Tells(json, "{\"kind\":\"launch\""));
    EXPECT_TRUE(Tells(json, "\"text\":\"status 3\"}"));
    EXPECT_TRUE(Tells(json, "{\"kind\":\"failure\""));
}

TEST_F(TimelineVerb, ShowsAllStatesOfABundle)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    Serve();
    ASSERT_EQ(RequestDelete("radio"), 200);
    const Ended json = Timeline({"--from", "10m", "--json"});
    for (const std::string state : {"Installed", "Resolved", "Starting", "Active", "Stopping"}) {
        EXPECT_TRUE(Tells(json, "{\"state\":\"" + state + "\""));
    }
}

TEST_F(TimelineVerb, ShowsTheLastStartUpOfALogWithoutAServer)
{
    collection.Bundle("radio").Write();
    Serve();
    daemon.Stop();
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog("bundle server start running...", 2));
    const std::string last = "\"server\":" + std::to_string(daemon.Pid()) + ",";
    daemon.Stop();
    const Ended json = Timeline({"--json", "--log", daemon.LogFile()});
    EXPECT_EQ(json.status, 0) << json.errors;
    EXPECT_TRUE(FollowsSchema(json.output));
    EXPECT_TRUE(Tells(json, last));
    EXPECT_FALSE(Has(json.output, "\"ready\":null"));
}

TEST_F(TimelineVerb, DrawsAPictureAndATrace)
{
    collection.Bundle("radio").Name("<&\"radio").Copy("tuner", TEST_SLEEPER).Install("true").Write();
    Serve();
    const std::string svg = File("picture.svg", Timeline({"--format", "svg"}).output);
    const Ended drawn = RunToEnd(
        "/usr/bin/python3",
        {"-c", "import sys,xml.etree.ElementTree as t; r=t.parse(sys.argv[1]); print(''.join(r.getroot().itertext()))",
         svg});
    EXPECT_EQ(drawn.status, 0) << drawn.errors;
    EXPECT_TRUE(Tells(drawn, "<&\"radio"));
    EXPECT_TRUE(Tells(drawn, "install.sh"));
    const std::string trace = File("trace.json", Timeline({"--format", "chrome-trace"}).output);
    const Ended traced = RunToEnd("/usr/bin/python3", {"-c",
                                                       "import sys,json\n"
                                                       "for e in json.load(open(sys.argv[1]))['traceEvents']:\n"
                                                       "  assert e['ph'] == 'M' or e['ts'] >= 0\n"
                                                       "  assert e['ph'] != 'X' or e['dur'] >= 0\n"
                                                       "  print(e['ph'], e['name'])",
                                                       trace});
    EXPECT_EQ(traced.status, 0) << traced.errors;
    EXPECT_TRUE(Tells(traced, "X install.sh"));
    EXPECT_TRUE(Tells(traced, "i launch tuner"));
    EXPECT_TRUE(Tells(traced, "M thread_name"));
}

TEST_F(TimelineVerb, ComparesTwoStartUps)
{
    collection.Bundle("radio").Write();
    const std::string before = notes / "before.log";
    const std::string after = notes / "after.log";
    daemon.SetLogFile(before);
    Serve();
    daemon.Stop();
    collection.Bundle("radio").Install("sleep 0.5").Write();
    collection.Bundle("clock").Write();
    DaemonRunner slower(collection.Path());
    slower.SetLogFile(after);
    ASSERT_TRUE(slower.StartServing());
    slower.Stop();
    const Ended ended = Timeline({"compare", before, after});
    EXPECT_EQ(ended.status, 1) << ended.errors;
    EXPECT_TRUE(Tells(ended, "(the whole start-up)"));
    EXPECT_TRUE(Tells(ended, "radio                 slower"));
    EXPECT_TRUE(Tells(ended, "clock                 new"));
    const Ended json = Timeline({"compare", before, after, "--json"});
    EXPECT_TRUE(FollowsSchema(json.output));
    EXPECT_EQ(Timeline({"compare", before, before}).status, 0);
    EXPECT_EQ(Timeline({"compare", before}).status, 2);
    EXPECT_EQ(Timeline({"contrast", before, after}).status, 2);
    EXPECT_EQ(Timeline({"compare", before, File("empty.log", "")}).status, 4);
}

TEST_F(TimelineVerb, BlamesTheBundleWhoseScriptTookLong)
{
    collection.Bundle("radio").Requires("base").Write();
    collection.Bundle("base").Install("sleep 0.5").Write();
    Serve();
    const Ended ended = Run({"blame"});
    EXPECT_EQ(ended.status, 0) << ended.errors;
    ASSERT_GE(Lines(ended.output).size(), 3U);
    EXPECT_TRUE(Has(Lines(ended.output)[1], " base")) << ended.output;
    EXPECT_TRUE(FollowsSchema(Run({"blame", "--json"}).output));
}

TEST_F(TimelineVerb, SaysThatALogHasNoStartUp)
{
    const Ended ended = Timeline({"--log", File("empty.log", "no record\n")});
    EXPECT_EQ(ended.status, 4);
    EXPECT_TRUE(Has(ended.errors, "has no beginning of a start-up"));
}
