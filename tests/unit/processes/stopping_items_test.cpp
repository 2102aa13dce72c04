// How a bundle's items are stopped.

#include "unit/processes/running_items.h"

#include "support/eventually.h"
#include "unit/processes/monitor_held.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

class StoppingItems : public RunningItems {};

} // namespace

TEST_F(StoppingItems, KillsThemAllWithoutARelaunch)
{
    const auto activator = Start(collection.Bundle("media").Item("one", Sleeper()).Item("two", Sleeper()));
    const std::string one = std::to_string(PidOf("media.one"));
    const std::string two = std::to_string(PidOf("media.two"));
    activator->Stop();
    std::vector<std::string> records{"bundle[media] item[one] pid[" + one + "]",
                                     "bundle[media] item[two] pid[" + two + "]"};
    if (std::stoi(one) > std::stoi(two)) { // the kernel's pids have wrapped around
        std::swap(records[0], records[1]);
    }
    EXPECT_TRUE(log.InOrder(records));
    EXPECT_TRUE(log.HasInfo("bundle[media] item[one] pid[" + one + "]"));
    ASSERT_TRUE(MonitorEnds());
    for (const std::string& name : {"media.one[" + one + "]", "media.two[" + two + "]"}) {
        EXPECT_TRUE(
            log.InOrder({name + " abnormal termination, signal: 9.", name + " abnormal termination, signal: 9."}))
            << "it must be in the log and in the language log";
    }
    EXPECT_TRUE(log.HasInfo("normal stop media.one..."));
    EXPECT_TRUE(log.HasInfo("normal stop media.two..."));
    EXPECT_FALSE(log.HasPart("relaunch"));
    EXPECT_TRUE(ProcessTable::Marks().empty());
    EXPECT_TRUE(ProcessTable::Entries().empty());
}

TEST_F(StoppingItems, NeitherWaitsForThemNorRemovesThemFromTheTable)
{
    MonitorHeld beforeItsWait(Call::WAITID);
    const auto activator = Start(collection.Bundle("media").Item("mediad", Sleeper()));
    const int pid = PidOf("media.mediad");
    activator->Stop();
    EXPECT_EQ(PidOf("media.mediad"), pid);
    EXPECT_EQ(ProcessTable::Marks(), std::set<int>{pid});
    beforeItsWait.Release();
    EXPECT_TRUE(MonitorEnds());
    EXPECT_TRUE(log.Has("normal stop media.mediad..."));
}

TEST_F(StoppingItems, DoesNothingWhenAllHaveEnded)
{
    const auto activator = Start(collection.Bundle("media").Item("mediad", Exiting(0)));
    ASSERT_TRUE(MonitorEnds());
    log.Restart();
    activator->Stop();
    EXPECT_TRUE(log.HasError("bundle process already exit."));
    EXPECT_EQ(log.Messages().size(), 1U);
}

TEST_F(StoppingItems, DoesNotTouchOtherBundles)
{
    const auto media = Start(collection.Bundle("media").Item("app", Sleeper()));
    const auto other = Start(collection.Bundle("media2").Item("app", Sleeper()));
    const int otherPid = PidOf("media2.app");
    media->Stop();
    ASSERT_TRUE(IsLogged("normal stop media.app..."));
    EXPECT_EQ(::kill(otherPid, 0), 0);
    EXPECT_TRUE(Eventually(PATIENCE, [] { return ProcessTable::Entries().size() == 1; }));
    EXPECT_EQ(PidOf("media2.app"), otherPid);
    EXPECT_FALSE(log.HasPart("media2.app[" + std::to_string(otherPid) + "]"));
}

TEST_F(StoppingItems, ThrowsAtTheFirstThatCannotBeKilled)
{
    const auto activator = Make(collection.Bundle("media"));
    const pid_t child = ::fork(); // a child that can be killed and that the monitor does not know
    if (child == 0) {
        ::pause();
        ::_exit(0);
    }
    const int impossible = 1'000'000'000;
    const int later = 1'000'000'001;
    for (const int pid : {static_cast<int>(child), impossible, later}) {
        ProcessTable::Add(pid, {"media", "media.item", "", "item", ""});
    }
    EXPECT_EQ(Refusal([&] { activator->Stop(); }), "bundle[media] activator stop :kill process[1000000000] fail.");
    EXPECT_EQ(ProcessTable::Marks(), std::set<int>{child});
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    for (const int pid : {static_cast<int>(child), impossible, later}) {
        ProcessTable::Remove(pid);
    }
    ProcessTable::ForgetMarks();
}

TEST_F(StoppingItems, ThrowsDuringThePauseOfARelaunch)
{
    const auto activator = Start(collection.Bundle("media").Item("mediad", ExitingAtTrigger(2)));
    const int dead = PidOf("media.mediad");
    PullTrigger();
    ASSERT_TRUE(Eventually(PATIENCE, [this] { return log.HasPart("need relaunch and now"); }));
    EXPECT_EQ(Refusal([&] { activator->Stop(); }),
              "bundle[media] activator stop :kill process[" + std::to_string(dead) + "] fail.");
    EXPECT_TRUE(ProcessTable::Marks().empty());
    ASSERT_TRUE(IsLogged("media.mediad relaunch done."));
    ASSERT_TRUE(Eventually(PATIENCE, [] { return ProcessTable::Entries().size() == 1; }));
    activator->Stop();
    EXPECT_TRUE(MonitorEnds());
    EXPECT_TRUE(log.Has("normal stop media.mediad..."));
}

TEST_F(StoppingItems, LetsThemBeStartedAgain)
{
    const auto activator = Start(collection.Bundle("media").Item("mediad", Sleeper()));
    const int first = PidOf("media.mediad");
    activator->Stop();
    ASSERT_TRUE(MonitorEnds());
    activator->Start();
    EXPECT_NE(PidOf("media.mediad"), first);
    EXPECT_EQ(log.Count("child process create, start monitor thread."), 2);
}
