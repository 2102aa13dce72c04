// bundlectl timeline: each mark and each state of the picture, produced by a real server.
#include "bundlectl/verb_test.h"

#include "support/private_mnt.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

class TimelineMarks : public VerbTest {
public:
    void SetUp() override { ::setenv("LC_ALL", "C", 1); }

    /// Whether the bundle has such a mark in the timeline.
    ::testing::AssertionResult Shows(const std::string& bundle, const std::string& kind, const std::string& item,
                                     const std::string& text)
    {
        const std::string json = Run({"timeline", "--from", "10m", "--json"}).output;
        const std::size_t begin = json.find("{\"name\":\"" + bundle + "\",\"in_chain\"");
        const std::size_t end = json.find("\"omitted\"", begin);
        const std::string part = begin == std::string::npos ? std::string() : json.substr(begin, end - begin);
        const std::string what = "\"item\":" + (item.empty() ? "null" : "\"" + item + "\"") + ",\"text\":\"" + text;
        const std::string opening = "{\"kind\":\"" + kind + "\"";
        for (std::size_t at = part.find(opening); at != std::string::npos; at = part.find(opening, at + 1)) {
            if (Has(part.substr(at, part.find('}', at) - at), what)) {
                return ::testing::AssertionSuccess();
            }
        }
        return ::testing::AssertionFailure() << "no " << kind << " with " << what << " in:\n" << part;
    }
};

} // namespace

TEST_F(TimelineMarks, TellWhatBecameOfThreads)
{
    BundleBuilder threads = collection.Bundle("threads").ThreadMode();
    threads.Library("stays.so", "SleepForever", TEST_LIBRARY).Library("ends.so", "ReturnZero", TEST_LIBRARY);
    threads.Library("throws.so", "ThrowException", TEST_LIBRARY).Write();
    Serve();
    ASSERT_TRUE(daemon.WaitForLog("dyn lib[ends.so] activate done."));
    ASSERT_TRUE(daemon.WaitForLog("exception info: [no tuner found]."));
    EXPECT_TRUE(Shows("threads", "launch", "stays.so", "thread"));
    EXPECT_TRUE(Shows("threads", "end", "ends.so", "its function has returned"));
    EXPECT_TRUE(Shows("threads", "failure", "throws.so", "entry func[ThrowException] return fail."));
}

TEST_F(TimelineMarks, TellWhichStepsFailed)
{
    collection.Bundle("absent").Item("itemd").Write();
    collection.Bundle("lonely").Requires("nowhere").Write();
    collection.Bundle("threads").ThreadMode().Item("tunerd").Write();
    collection.Bundle("edited").Write();
    collection.BundleIn("odd").Manifest("[global]\nbundle_name = odd\n").Write();
    collection.Bundle("loop").Item("loop.sh", Shell("kill -SEGV $$")).Write();
    Serve();
    staging.Bundle("early").Requires("nowhere").Write();
    MoveIn("early");
    ASSERT_TRUE(daemon.WaitForLog("load bundle[early] done."));
    WriteFile(collection / "edited/BundleManifest.ini", "broken");
    ASSERT_TRUE(daemon.WaitForLog("update bundle[edited] failed."));
    ASSERT_TRUE(Eventually(std::chrono::seconds(20), [] { return RequestDelete("loop") == 400; }));
    EXPECT_TRUE(Shows("absent", "failure", "itemd", "cannot be executed"));
    EXPECT_TRUE(Shows("lonely", "failure", "", "Invalid argument: required bundle :[nowhere] not found."));
    EXPECT_TRUE(Shows("threads", "failure", "", "Invalid argument"));
    EXPECT_TRUE(Shows("edited", "failure", "", ""));
    EXPECT_TRUE(Shows(collection / "odd", "failure", "", ""));
    EXPECT_TRUE(Shows("loop", "failure", "", "Invalid argument: bundle[loop] activator stop"));
    EXPECT_TRUE(Shows("loop", "death", "loop.sh", "SIGSEGV"));
    EXPECT_TRUE(Shows("loop", "relaunch", "loop.sh", ""));
    EXPECT_TRUE(Shows("early", "failure", "", ""));
}

// The first process of a bundle cannot be forked, so its start fails. A bundle that requires it then starts it after
// all.
TEST_F(TimelineMarks, TellOfAFailedBundleThatIsNotUnloaded)
{
    const std::string refusal = Note("refusal");
    Interpose("HOLD_AFTER", "2:failed to start bundle[base]");
    daemon.SetEnvironment("REFUSE_FORK_WHEN", refusal);
    WriteFile(refusal, "");
    collection.Bundle("base").Copy("based", TEST_SLEEPER).Write();
    collection.Bundle("radio").Requires("base").Write();
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog("failed to start bundle[base] :Invalid argument: process[base.based] fork fail."));
    std::filesystem::remove(refusal);
    ASSERT_TRUE(daemon.WaitForLog("bundle server start running..."));
    EXPECT_TRUE(Shows("base", "failure", "", "Invalid argument: process[base.based] fork fail."));
    EXPECT_TRUE(Shows("base", "failure", "", "Invalid argument: bundle[base] already start can not be unloaded."));
    EXPECT_TRUE(Tells(Run({"status"}), "base    Active"));
}

TEST_F(TimelineMarks, HaveASignEachInThePicture)
{
    daemon.Configure("global.server_submodule_dir", LOADER_DIRECTORY);
    Interpose("HOLD_AFTER", "1:bundle[radio] state changing[] -> [Installed]\n1:[Installed] -> [Resolved]\n"
                            "1:[Active] -> [Stopping]\n1:relaunch radio.tuner\n");
    collection.Bundle("radio").Install("sleep 0.5").Copy("tuner", TEST_SLEEPER).Write();
    collection.Bundle("once").Item("once.sh", Shell("exit 3")).Write();
    collection.Bundle("lonely").Requires("nowhere").Write();
    Serve();
    ASSERT_TRUE(daemon.WaitForLog("does not need relaunch"));
    ::kill(daemon.WaitForItem("radio", "tuner"), SIGABRT);
    ASSERT_TRUE(daemon.WaitForLog("radio.tuner relaunch done."));
    ASSERT_EQ(RequestDelete("radio"), 200);
    const std::string picture = Run({"timeline", "--from", "10m"}).output;
    const std::string bars = picture.substr(0, picture.find(". installed"));
    for (const char* const sign : {"..", "--", "=", "#", "~", "S", "L", "E", "R", "X", "!"}) {
        EXPECT_TRUE(Has(bars, sign)) << sign << " in\n" << picture;
    }
}
