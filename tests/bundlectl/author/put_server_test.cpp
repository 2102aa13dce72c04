// bundlectl put and the related verbs, with a running server.
#include "bundlectl/verb_test.h"
#include "support/private_mnt.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

class Putting : public VerbTest {
public:
    Putting()
    {
        fs::create_directory(m_root / "bundles");
        daemon.Configure("global.bundle_collection_dir", m_root / "bundles");
    }

    std::string At(const std::string& path) const { return m_root / ("bundles/" + path); }

    std::string Version(const std::string& script) const
    {
        fs::remove_all(staging / "radio");
        return staging.Bundle("radio").Item("tuner.sh", script).Write();
    }

    static Ended Put(const std::string& source) { return Run({"put", source, "--soak", "1s"}); }

private:
    TemporaryDirectory m_root;
};

constexpr const char STAYS[] = "exec sleep 1000\n";

} // namespace

TEST_F(Putting, WaitsUntilANewBundleIsActive)
{
    Serve();
    const Ended ended = Put(Version(STAYS));
    EXPECT_EQ(ended.status, 0) << ended.errors << ended.output;
    EXPECT_TRUE(Tells(ended, "version 1 of \"radio\" is Active."));
    EXPECT_EQ(daemon.CountInLog("bundle[radio] state changing[Starting] -> [Active]"), 1);
}

TEST_F(Putting, UpdatesInOneChange)
{
    Serve();
    ASSERT_EQ(Put(Version(STAYS)).status, 0);
    const Ended ended = Put(Version("# two\n" + std::string(STAYS)));
    EXPECT_EQ(ended.status, 0) << ended.errors;
    EXPECT_TRUE(Tells(ended, "version 2 of \"radio\" is Active."));
    EXPECT_EQ(daemon.CountInLog("dir item modified event happen."), 1);
    EXPECT_EQ(daemon.CountInLog("dir item remove event happen."), 0);
    EXPECT_EQ(daemon.CountInLog("dir item add event happen."), 1);
    const Ended back = Run({"rollback", "radio", "--soak", "0"});
    EXPECT_EQ(back.status, 0) << back.errors;
    EXPECT_TRUE(Tells(back, "version 1 of \"radio\" is Active."));
}

TEST_F(Putting, GoesBackWhenAnItemDies)
{
    Serve();
    ASSERT_EQ(Put(Version(STAYS)).status, 0);
    const Ended ended = Put(Version("exit 1\n"));
    EXPECT_EQ(ended.status, 1) << ended.output;
    EXPECT_TRUE(Has(ended.errors, "version 1 is in force again and Active.")) << ended.errors;
    EXPECT_TRUE(Has(ended.errors, "Its item tuner.sh ended with status 1.")) << ended.errors;
    EXPECT_EQ(ReadFile(At("radio/bin/tuner.sh")), STAYS);
    const Ended versions = Run({"versions", "radio", "--json"});
    EXPECT_TRUE(Tells(versions, "\"number\":1"));
    EXPECT_FALSE(Has(versions.output, "\"number\":2")) << "the failed version is dropped: " << versions.output;
}

TEST_F(Putting, GoesBackFromAnItemThatCrashesAgainAndAgain)
{
    Serve();
    ASSERT_EQ(Put(Version(STAYS)).status, 0);
    const Ended ended = Put(Version("exit 2\n"));
    EXPECT_EQ(ended.status, 1) << ended.output;
    EXPECT_TRUE(Has(ended.errors, "version 1 is in force again and Active.")) << ended.errors;
}

TEST_F(Putting, TakesANewBundleOutAgainThatDies)
{
    Serve();
    const Ended ended = Put(Version("kill -SEGV $$\n"));
    EXPECT_EQ(ended.status, 1) << ended.output;
    EXPECT_TRUE(Has(ended.errors, "is taken out again. Its item tuner.sh died of SIGSEGV.")) << ended.errors;
    EXPECT_FALSE(Exists(At("radio")));
}

TEST_F(Putting, GoesBackWhenThereIsNoVerdict)
{
    Serve();
    ASSERT_EQ(Put(Version(STAYS)).status, 0);
    fs::remove_all(staging / "radio");
    staging.Bundle("radio").Item("tuner.sh", STAYS).Update("#!/bin/sh\nexec sleep 4\n").Write();
    const Ended ended = Run({"put", staging / "radio", "--soak", "0", "--wait", "2s"});
    EXPECT_EQ(ended.status, 5) << ended.output;
    EXPECT_TRUE(Has(ended.errors, "It has not become Active in time.")) << ended.errors;
    EXPECT_FALSE(Exists(At("radio/script/update.sh")));
}

TEST_F(Putting, SaysWhenTheLogCannotBeRead)
{
    Serve();
    const Ended ended = Run({"put", Version(STAYS), "--log", "/nowhere/log"});
    EXPECT_EQ(ended.status, 4) << ended.output;
    EXPECT_TRUE(Exists(At("radio")));
    EXPECT_TRUE(daemon.WaitForLog("bundle[radio] state changing[Starting] -> [Active]"));
}

TEST_F(Putting, RemovesByRequest)
{
    Serve();
    staging.Bundle("tv").Uninstall("#!/bin/sh\necho gone > " + Note("uninstalled") + "\n").Write();
    ASSERT_EQ(Put(staging / "tv").status, 0);
    const Ended ended = Run({"remove", "tv"});
    EXPECT_EQ(ended.status, 0) << ended.errors;
    EXPECT_EQ(ReadFile(Note("uninstalled")), "gone\n");
    EXPECT_FALSE(Exists(At("tv")));
}
