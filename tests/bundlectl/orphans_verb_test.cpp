// bundlectl orphans, with the processes that a killed server leaves.
#include "bundlectl/verb_test.h"

#include "support/private_mnt.h"
#include "support/process_info.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

namespace {

const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

class OrphansVerb : public VerbTest {
public:
    /// The process of an item that a killed server has left.
    pid_t Leave(const std::string& item)
    {
        const pid_t pid = daemon.WaitForItem("radio", item);
        daemon.Stop(SIGKILL);
        return pid;
    }
    Ended Orphans(std::vector<std::string> arguments = {})
    {
        for (const std::string& word :
             {std::string("--log"), daemon.LogFile(), std::string("--collection"), collection.Path()}) {
            arguments.push_back(word);
        }
        arguments.insert(arguments.begin(), "orphans");
        return Run(std::move(arguments));
    }
};

bool IsAlive(pid_t pid)
{
    return ::kill(pid, 0) == 0;
}

} // namespace

TEST_F(OrphansVerb, FindsNoneBesideAServerThatRuns)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    Serve();
    ASSERT_NE(daemon.WaitForItem("radio", "tuner"), 0);
    const Ended ended = Run({"orphans", "--end"});
    EXPECT_EQ(ended.status, 0) << ended.output << ended.errors;
    EXPECT_TRUE(Tells(ended, "No process of a former server is left."));
}

TEST_F(OrphansVerb, ListsThemAndTouchesNone)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    Serve();
    const pid_t pid = Leave("tuner");
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{}, {"--end", "--dry-run"}}) {
        const Ended ended = Orphans(arguments);
        EXPECT_EQ(ended.status, 1) << ended.errors;
        EXPECT_TRUE(Tells(ended, std::to_string(pid) + "  radio   tuner"));
        EXPECT_TRUE(IsAlive(pid));
    }
    EXPECT_TRUE(Tells(Orphans({"--end", "--dry-run"}), "would get TERM"));
    EXPECT_TRUE(FollowsSchema(Orphans({"--json"}).output));
    ::kill(pid, SIGKILL);
}

TEST_F(OrphansVerb, EndsThemWithTermAndThoseThatIgnoreItWithKill)
{
    collection.Bundle("radio")
        .Copy("tuner", TEST_SLEEPER)
        .Item("deaf.sh", Shell("trap '' TERM; while :; do sleep 0.1; done"))
        .Write();
    Serve();
    ASSERT_NE(daemon.WaitForItem("radio", "deaf.sh"), 0);
    ASSERT_NE(Leave("tuner"), 0);
    const Ended ended = Orphans({"--end", "--grace", "1s", "--json"});
    EXPECT_EQ(ended.status, 0) << ended.output << ended.errors;
    EXPECT_TRUE(FollowsSchema(ended.output));
    EXPECT_TRUE(Tells(ended, "\"fate\":\"TERM\""));
    EXPECT_TRUE(Tells(ended, "\"fate\":\"KILL\""));
    EXPECT_EQ(Orphans().status, 0);
}

TEST_F(OrphansVerb, ListsAnItemThatHasBecomeAnotherProgramByItsLaunchInTheLog)
{
    collection.Bundle("radio").Item("web.sh", "exec /bin/sleep 1000\n").Write();
    Serve();
    const pid_t pid = daemon.WaitForItem("radio", "web.sh");
    ASSERT_TRUE(Eventually(std::chrono::seconds(20), [pid] { return ProcessOf::Executable(pid) == "/usr/bin/sleep"; }));
    daemon.Stop(SIGKILL);
    EXPECT_TRUE(Tells(Orphans(), std::to_string(pid) + "  radio   web.sh"));
    EXPECT_TRUE(Tells(Orphans({"--end"}), "TERM"));
    EXPECT_TRUE(Tells(Orphans(), "No process of a former server is left."));
}

TEST_F(OrphansVerb, LeavesAloneWhatAServerOfAnotherContainerHasLeft)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    const std::string tuner = collection / "radio/./bin/tuner";
    Program container(
        {"/usr/bin/unshare", "--mount", "/bin/sh", "-c",
         "mount -t tmpfs none /mnt && setsid --fork sh -c 'echo $$ > " + Note("pid") + "; exec " + tuner + "'"});
    ASSERT_EQ(container.Wait(), 0) << container.Errors();
    ASSERT_TRUE(Eventually(std::chrono::seconds(20), [this] { return !ReadFile(Note("pid")).empty(); }));
    const pid_t pid = std::stoi(ReadFile(Note("pid")));
    ASSERT_TRUE(Eventually(std::chrono::seconds(20), [&] {
        return ReadFile("/proc/" + std::to_string(pid) + "/cmdline").substr(0, tuner.size()) == tuner;
    }));
    EXPECT_TRUE(Tells(Orphans({"--end"}), "No process of a former server is left."));
    EXPECT_TRUE(IsAlive(pid));
    ::kill(pid, SIGKILL);
}
