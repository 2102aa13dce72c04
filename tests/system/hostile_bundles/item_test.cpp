// Programs that harm themselves, each other, the server or their own bundle.

#include "system/hostile_bundles/hostile_bundle.h"

#include <unistd.h>

#include <filesystem>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

/// Every item is a copy of HOSTILE_PROGRAM: it does what its name says, and its bundle has the same name.
class HostileItems : public HostileBundles {
protected:
    HostileItems() { daemon.SetEnvironment("NOTES", notes.Path().string()); }

    static void Write(const CollectionBuilder& target, const std::string& deed)
    {
        target.Bundle(deed).Copy(deed, HOSTILE_PROGRAM).Write();
    }

    bool IsNoted(const std::string& name, const std::string& text) const
    {
        return Eventually(DaemonRunner::PATIENCE, [&] { return ReadFile(Note(name)).find(text) != std::string::npos; });
    }
};

class AHostileItem : public HostileItems {};
class AnItemThatLeavesTheGroup : public HostileItems {};
class AnItemsName : public HostileBundles {};

bool LeadsAGroup(pid_t pid)
{
    return Eventually(DaemonRunner::PATIENCE, [pid] { return ::getpgid(pid) == pid; });
}

bool IsStopped(pid_t pid)
{
    return Eventually(DaemonRunner::PATIENCE, [pid] { return ProcessOf::Status(pid, "State").rfind('T', 0) == 0; });
}

} // namespace

TEST_F(AHostileItem, HarmsNoOtherBundle)
{
    const std::vector<std::string> deeds{"ask-for-more",  "close-all",   "fork-for-ever", "ignore-signals",
                                         "kill-siblings", "stop-itself", "stop-server",   "write-everywhere"};
    for (const std::string& deed : deeds) {
        Write(staging, deed);
    }
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    ASSERT_TRUE(StartServing());
    MoveAllIn(); // only now, because what the server holds at its start is compared later, and a launch holds a pipe
    EXPECT_TRUE(IsNoted("forked", "no more") || IsNoted("forked", "enough"));
    EXPECT_TRUE(IsNoted("siblings", "killed"));
    EXPECT_TRUE(IsNoted("stopped", "continued"));
    EXPECT_TRUE(IsNoted("written", "0"));
    EXPECT_EQ(ReadFile(Note("written")).find_first_not_of("0\n"), std::string::npos)
        << "an item has inherited descriptors";
    const pid_t stopped = daemon.WaitForItem("stop-itself", "stop-itself");
    EXPECT_TRUE(IsStopped(stopped)) << "no process wakes it";
    EXPECT_TRUE(daemon.WaitForLog("ask-for-more.ask-for-more[", 3));
    const auto launches = static_cast<int>(daemon.PidsOf("radio", "radiod").size());
    ::kill(daemon.WaitForItem("radio", "radiod", launches), SIGKILL);
    EXPECT_NE(daemon.WaitForItem("radio", "radiod", launches + 1), 0);
    EXPECT_TRUE(IsUnharmed());

    for (const std::string& deed : deeds) {
        // An item that crashes all the time is usually dead when it is stopped.
        EXPECT_TRUE(deed == "ask-for-more" || RequestDelete(deed) == 200) << deed;
    }
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [&] { return !ProcessOf::IsAlive(stopped); }));
    EXPECT_TRUE(IsUnharmed());
}

// A child of an item is not an item, so the server does not stop it.
TEST_F(AHostileItem, LeavesItsOwnChildrenBehindWhenItIsStopped)
{
    Write(collection, "fork-for-ever");
    ASSERT_TRUE(StartServing());
    ASSERT_TRUE(IsNoted("forked", "\n"));
    EXPECT_GT(daemon.Descendants().size(), 2U);
    EXPECT_EQ(RequestDelete("fork-for-ever"), 200);
    EXPECT_TRUE(daemon.WaitForLog("normal stop fork-for-ever.fork-for-ever..."));
    EXPECT_GT(daemon.Descendants().size(), 1U);
    EXPECT_TRUE(IsUnharmed());
}

TEST_F(AHostileItem, ThatKillsItsGroupEndsTheServerWithIt)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    Write(staging, "kill-group");
    ASSERT_TRUE(StartServing());
    MoveIn("kill-group");
    const auto end = daemon.WaitForEnd();
    ASSERT_TRUE(end);
    EXPECT_EQ(end->status, 0) << "as with any other SIGTERM";
    fs::remove_all(In("kill-group"));
    ASSERT_TRUE(StartServing());
    EXPECT_TRUE(IsUnharmed());
}

TEST_F(AHostileItem, ThatDeletesItsBundleIsStopped)
{
    Write(staging, "delete-bundle");
    ASSERT_TRUE(StartServing());
    MoveIn("delete-bundle");
    ASSERT_TRUE(daemon.WaitForLog("normal stop delete-bundle.delete-bundle..."));
    EXPECT_TRUE(IsUnknown("delete-bundle"));
    EXPECT_TRUE(IsUnharmed());
}

TEST_F(AHostileItem, ThatRewritesItsManifestIsRestartedRepeatedlyWithoutDelayingOthers)
{
    Write(staging, "rewrite-manifest");
    ASSERT_TRUE(StartServing());
    MoveIn("rewrite-manifest");
    EXPECT_TRUE(IsStarted("rewrite-manifest", 3));
    EXPECT_TRUE(IsUnharmed());
    const std::size_t launches = daemon.PidsOf("rewrite-manifest", "rewrite-manifest").size();
    EXPECT_TRUE(IsStarted("rewrite-manifest", static_cast<int>(launches) + 1)) << "it still rewrites its manifest";
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [] { return RequestDelete("rewrite-manifest") == 200; }));
    EXPECT_TRUE(IsUnharmed());
}

TEST_F(AnItemThatLeavesTheGroup, IsNotSupervisedAndTheOthersAre)
{
    collection.Bundle("a-radio").Copy("radiod", TEST_SLEEPER).Write(); // launched first, so it has the lowest pid
    Write(collection, "leave-session");
    ASSERT_TRUE(StartServing());
    const pid_t leaver = daemon.WaitForItem("leave-session", "leave-session");
    ASSERT_TRUE(LeadsAGroup(leaver));
    ::kill(leaver, SIGKILL);
    EXPECT_EQ(daemon.WaitForItem("leave-session", "leave-session", 2, 2s), 0) << "its end is not seen";
    EXPECT_EQ(DeadChildren(), std::vector<pid_t>{leaver});
    EXPECT_EQ(RequestDelete("leave-session"), 200) << "it can still be stopped";
    ::kill(daemon.WaitForItem("a-radio", "radiod"), SIGKILL);
    EXPECT_NE(daemon.WaitForItem("a-radio", "radiod", 2), 0);
    // The dead item now has the lowest pid. The monitor waits for its group, and so finds it.
    EXPECT_TRUE(IsUnharmed());
}

// The monitor waits for the group of the lowest pid, even if that item has joined another group.
TEST_F(AnItemThatLeavesTheGroup, AndHasTheLowestPidBlocksTheSupervisionOfAllOthersUntilItEnds)
{
    Write(collection, "leave-session");
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    ASSERT_TRUE(StartServing());
    const pid_t leaver = daemon.WaitForItem("leave-session", "leave-session");
    ASSERT_TRUE(LeadsAGroup(leaver));
    int launches = 0;
    const auto isRunAgain = [&](std::chrono::milliseconds time) {
        ::kill(daemon.WaitForItem("radio", "radiod", ++launches), SIGKILL);
        return daemon.WaitForItem("radio", "radiod", launches + 1, time) != 0;
    };
    // The current wait may still be one for the server's own group.
    const bool wasWaitingForAll = isRunAgain(2s);
    EXPECT_FALSE(wasWaitingForAll && isRunAgain(2s));
    ::kill(leaver, SIGKILL);
    EXPECT_NE(daemon.WaitForItem("radio", "radiod", launches + 1), 0) << "the missed deaths are handled now";
    EXPECT_NE(daemon.WaitForItem("leave-session", "leave-session", 2), 0);
}

TEST_F(AnItemThatLeavesTheGroup, AndHasTheLowestPidTakesLaterItemsIntoItsGroup)
{
    Write(collection, "leave-group");
    ASSERT_TRUE(StartServing());
    const pid_t leaver = daemon.WaitForItem("leave-group", "leave-group");
    ASSERT_TRUE(LeadsAGroup(leaver));
    staging.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    MoveIn("radio");
    EXPECT_EQ(::getpgid(daemon.WaitForItem("radio", "radiod")), leaver);
}

TEST_F(AnItemsName, MayBeAnyPathAndAMissingFileFailsOnlyItsItem)
{
    collection.Bundle("radio")
        .Item("../data/outside", Shell(": > " + Note("outside") + "\nexec " TEST_SLEEPER))
        .Item("with a space", Shell(": > " + Note("space") + "\nexec " TEST_SLEEPER))
        .Item("%s%n%500d", Shell(": > " + Note("percent") + "\nexec " TEST_SLEEPER))
        .Item("/bin/true")
        .Item("../../../../../../../../../../nowhere/at/all")
        .Item("folder/")
        .Item(std::string(300, 'n'))
        .Item(std::string(3000, 'n'))
        .Item("...")
        .Write();
    fs::create_directory(In("radio") + "/bin/folder");
    ASSERT_TRUE(StartServing());
    for (const char* const name : {"outside", "space", "percent"}) {
        EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [&] { return Exists(Note(name)); })) << name;
    }
    EXPECT_TRUE(daemon.WaitForLog("execl fail.errno[2].", 3)); // missing: an absolute name is looked up below "bin" too
    EXPECT_TRUE(daemon.WaitForLog("execl fail.errno[36].", 2)); // too long
    EXPECT_TRUE(daemon.WaitForLog("execl fail.errno[13].", 1)); // a directory
    EXPECT_TRUE(daemon.WaitForLog("does not need relaunch with exit status [1].", 6));
    EXPECT_TRUE(IsUnharmed());
    EXPECT_EQ(RequestDelete("radio"), 200);
    EXPECT_TRUE(IsUnharmed());
}
