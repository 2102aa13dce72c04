// bundlectl status, with a real server.
#include "bundlectl/verb_test.h"

#include "support/private_mnt.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

namespace {

const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

class Status : public VerbTest {};

} // namespace

TEST_F(Status, IsGoodWhenAllBundlesAreActiveAndUp)
{
    collection.Bundle("base").Write();
    collection.Bundle("radio")
        .Requires("base")
        .Copy("tuner", TEST_SLEEPER)
        .Item("poll.sh", Shell("sleep 1000"))
        .Write();
    Serve();
    ASSERT_NE(daemon.WaitForItem("radio", "poll.sh"), 0);
    const Ended ended = Run({"status"});
    EXPECT_EQ(ended.status, 0) << ended.output << ended.errors;
    EXPECT_EQ(ended.errors, "");
    EXPECT_TRUE(Tells(ended, "2 of 2 bundles are Active with all items up."));
    EXPECT_TRUE(Tells(ended, "2/2"));
}

TEST_F(Status, TakesABundleForIllWhoseItemIsNotUp)
{
    collection.Bundle("radio").Item("tuner").Copy("clock", TEST_SLEEPER).Write();
    Serve();
    ASSERT_TRUE(daemon.WaitForLog("does not need relaunch"));
    const Ended ended = Run({"status"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(Tells(ended, "1/2"));
    EXPECT_TRUE(Tells(ended, "tuner: No such file or directory"));
    EXPECT_TRUE(Tells(ended, "bundlectl why radio"));
}

TEST_F(Status, MarksACrashLoop)
{
    collection.Bundle("radio").Item("tuner.sh", Shell("kill -SEGV $$")).Write();
    Serve();
    ASSERT_TRUE(daemon.WaitForLog("radio.tuner.sh relaunch done.", 3));
    const Ended ended = Run({"status"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(Tells(ended, "tuner.sh crash loop, SIGSEGV"));
}

TEST_F(Status, ShowsWhatTheItemsOfABundleUse)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    Serve();
    const pid_t first = daemon.WaitForItem("radio", "tuner");
    ::kill(first, SIGUSR1);
    const pid_t second = daemon.WaitForItem("radio", "tuner", 2);
    ASSERT_TRUE(daemon.WaitForLog("radio.tuner relaunch done."));
    const Ended ended = Run({"status", "radio"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_TRUE(Tells(ended, std::to_string(second)));
    EXPECT_TRUE(Tells(ended, "iB "));
    EXPECT_TRUE(Tells(ended, "SIGUSR1 "));
}

TEST_F(Status, MarksADirectoryThatHasChanged)
{
    collection.Bundle("radio").Write();
    Serve();
    WriteFile(collection / "radio/BundleManifest.ini", "broken");
    ASSERT_TRUE(daemon.WaitForLog("update bundle[radio] failed."));
    // Changes in the first seconds count as made by the bundle itself.
    ASSERT_TRUE(Eventually(std::chrono::seconds(20), [this] {
        WriteFile(collection / "radio/BundleManifest.ini", "broken");
        return Has(Run({"status"}).output, "changed since load");
    }));
    EXPECT_TRUE(Tells(Run({"status"}), "update failed"));
}

TEST_F(Status, MarksAProgramThatWasReplaced)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    Serve();
    ASSERT_NE(daemon.WaitForItem("radio", "tuner"), 0);
    daemon.Signal(SIGSTOP); // it would handle the change
    std::filesystem::copy_file(collection / "radio/bin/tuner", collection / "radio/bin/new");
    std::filesystem::rename(collection / "radio/bin/new", collection / "radio/bin/tuner");
    const Ended ended = Run({"status"});
    daemon.Signal(SIGCONT);
    EXPECT_TRUE(Tells(ended, "tuner runs an old program"));
}

TEST_F(Status, MarksADirectoryThatHasGone)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    Serve();
    daemon.Signal(SIGSTOP);
    std::filesystem::remove_all(collection / "radio");
    const Ended ended = Run({"status"});
    daemon.Signal(SIGCONT);
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(Tells(ended, "directory gone"));
}

TEST_F(Status, MarksAnItemThatRunsTwice)
{
    ServeAnItemTwice();
    const Ended ended = Run({"status"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(Tells(ended, "tuner runs twice"));
}

TEST_F(Status, ShowsThreads)
{
    collection.Bundle("radio").ThreadMode().Library("tuner.so", "SleepForever", TEST_LIBRARY).Write();
    Serve();
    ASSERT_TRUE(daemon.WaitForLog("bundle[radio] dyn lib[tuner.so] activate start..."));
    ASSERT_TRUE(Eventually(std::chrono::seconds(10), [] { return Run({"status"}).status == 0; }))
        << Run({"status"}).output;
    EXPECT_TRUE(Tells(Run({"status", "radio"}), "THREAD"));
}

TEST_F(Status, SaysThatNoServerRuns)
{
    collection.Bundle("radio").Write();
    const Ended ended = Run({"status", "--collection", collection.Path()});
    EXPECT_EQ(ended.status, 4);
    EXPECT_TRUE(Tells(ended, "No bundle server runs."));
}

TEST_F(Status, SuggestsTheNameThatIsMeant)
{
    collection.Bundle("radio").Write();
    Serve();
    const Ended ended = Run({"status", "raido"});
    EXPECT_EQ(ended.status, 3);
    EXPECT_EQ(ended.errors, "bundlectl: there is no bundle \"raido\". Did you mean \"radio\"?\n");
}

TEST_F(Status, IsWrittenForProgramsToo)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Item("once.sh", Shell("exit 3")).Write();
    collection.BundleIn("broken").Manifest("[global]\nbundle_name=\"x\x01\xff\n").Write();
    collection.Bundle("lonely").Requires("nowhere").Write();
    Serve();
    ASSERT_TRUE(daemon.WaitForLog("does not need relaunch"));
    const Ended all = Run({"status", "--json"});
    EXPECT_EQ(all.status, 1);
    EXPECT_EQ(Lines(all.output).size(), 1U);
    EXPECT_TRUE(FollowsSchema(all.output));
    const Ended one = Run({"status", "radio", "--json"});
    EXPECT_TRUE(FollowsSchema(one.output));
    EXPECT_TRUE(Tells(one, "\"pss_kib\":"));
}

TEST_F(Status, HasNoColourAndNoControlCharacterWhereThereIsNoTerminal)
{
    collection.BundleIn("x").Manifest("[global]\nbundle_name=a\x1b[31m\nbundle_load_mode=0\n").Write();
    Serve();
    const Ended ended = Run({"status"});
    EXPECT_EQ(ended.output.find('\x1b'), std::string::npos);
    EXPECT_TRUE(Tells(ended, "a\\033[31m"));
}

TEST_F(Status, SaysThatTheBundlesAreNotKnownAndNotThatThereAreNone)
{
    const std::string absent = Note("absent");
    for (const char* const option : {"--collection", "--config"}) {
        for (const std::vector<std::string>& verb :
             {std::vector<std::string>{"status"}, {"status", "radio"}, {"why", "radio"}, {"orphans"}}) {
            std::vector<std::string> arguments = verb;
            arguments.insert(arguments.end(), {option, absent});
            const Ended ended = Run(arguments);
            EXPECT_EQ(ended.status, 4) << ended.output << ended.errors;
            EXPECT_TRUE(Has(ended.errors, "bundlectl: The collection ")) << ended.errors;
            EXPECT_TRUE(Has(ended.errors, absent)) << ended.errors;
            EXPECT_FALSE(Has(ended.output, "There are no bundles")) << ended.output;
            EXPECT_FALSE(Has(ended.errors, "there is no bundle")) << ended.errors;
        }
    }
}
