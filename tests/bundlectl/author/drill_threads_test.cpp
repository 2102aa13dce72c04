// bundlectl drill on bundles whose items are threads of the server.
#include "bundlectl/author/drill_fixture.h"
#include "support/scale.h"
#include "support/shell.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

class DrillingThreads : public Drilling {
public:
    BundleBuilder Radio(const std::string& function) const
    {
        return bundles.Bundle("radio").ThreadMode().Library("tuner.so", function, TEST_LIBRARY);
    }
};

} // namespace

TEST_F(DrillingThreads, EndsTheServerAndStartsItAgain)
{
    Radio("SleepForever").Write();
    std::vector<std::string> only{"--only", "signal:ABRT", "signal:XFSZ", "status:3", "--json"};
    if (IsLongForm()) {
        only = {"--only", "undisturbed", "signal", "status", "--json"};
    }
    const Ended ended = Drill("radio", only);
    EXPECT_EQ(ended.status, 0) << ended.output << ended.errors;
    EXPECT_TRUE(FollowsSchema(ended.output));
    const std::string rest = ", and so the threads of all bundles. Nothing supervises threads. A new server has it up";
    EXPECT_TRUE(Tells(ended, "It ends the server, with SIGABRT" + rest));
    EXPECT_TRUE(Tells(ended, "It ends the server, with status 3" + rest));
    EXPECT_TRUE(Tells(ended, "The server goes on running.")) << "it ignores SIGXFSZ";
    EXPECT_TRUE(Tells(ended, "\"failed\":0,\"left_out\":0"));
    if (IsLongForm()) {
        EXPECT_TRUE(Tells(ended, "It runs on a thread of the server."));
    }
}

TEST_F(DrillingThreads, RemovesTheirLibrary)
{
    Radio("ReturnZero").Write();
    const Ended ended = Drill("radio", {"--only", "library"});
    EXPECT_EQ(ended.status, 0) << ended.output << ended.errors;
    EXPECT_TRUE(Tells(ended,
                      "Without it all items are up. The server keeps what it has loaded, so it is started again. "
                      "Without it these are down: tuner.so. With it back, all are up again.\n"));
}

TEST_F(DrillingThreads, ExchangesTheBundleAndFillsTheLogsDisk)
{
    Radio("SleepForever").Install(Shell("")).Write();
    std::vector<std::string> only{"--only", "exchange", "full-log"};
    if (IsLongForm()) {
        only.emplace_back("slow-script");
    }
    const Ended ended = Drill("radio", only);
    EXPECT_EQ(ended.status, 0) << ended.output << ended.errors;
    EXPECT_TRUE(Tells(ended, "It was exchanged by a copy, which was up after "));
    EXPECT_TRUE(Tells(ended, "The server goes on when the bundle is touched while the log's disk is full. The log goes"
                             " on when there is space again."));
    if (IsLongForm()) {
        EXPECT_TRUE(Tells(ended, "slow-script:update: passed\n    The bundle is up after the slow update.\n"));
        EXPECT_TRUE(Tells(ended, "It was taken out, put back, and is up after a slow install.sh."));
    }
}

TEST_F(DrillingThreads, FindsADescriptorThatEachStartLeavesOpen)
{
    Radio("LeaveDescriptor").Write();
    const Ended ended = Drill("radio", {"--only", "exchange", "--json"});
    EXPECT_EQ(ended.status, 1) << ended.output << ended.errors;
    EXPECT_TRUE(Tells(ended, "The server has 1 descriptor more than before."));
    EXPECT_TRUE(Tells(ended, "\"descriptors_left\":1"));
}

TEST_F(DrillingThreads, FindsAThreadThatCannotBeCancelled)
{
    Radio("SleepThroughCancellation").Write();
    const Ended ended = Drill("radio", {"--only", "exchange"});
    EXPECT_EQ(ended.status, 1) << ended.output << ended.errors;
    EXPECT_TRUE(Tells(ended, "The former thread of tuner.so goes on beside the new one: it cannot be cancelled."));
}

TEST_F(DrillingThreads, FindsAProcessThatOutlivesTheServer)
{
    Radio("KeepChild").Write();
    const Ended ended = Drill("radio", {"--only", "signal:KILL"});
    EXPECT_EQ(ended.status, 1) << ended.output << ended.errors;
    EXPECT_TRUE(Tells(ended, "It ends the server, with SIGKILL"));
    EXPECT_TRUE(Tells(ended, "It leaves a process behind: sh (process "));
}
