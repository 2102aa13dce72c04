// Files that are not scripts, and scripts that fail, never end, or attack the server or other bundles.

#include "system/hostile_bundles/hostile_bundle.h"

#include <sys/stat.h>

#include <filesystem>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class AHostileScript : public HostileBundles {
protected:
    /// Writes a bundle for each way in which an "install.sh" can be bad without an effect on other bundles.
    static void WriteBad(const CollectionBuilder& target, const std::string& notes)
    {
        const auto pathOf = [&target](const std::string& bundle) { return target / bundle + "/script/install.sh"; };
        target.Bundle("bare").Install(": > " + notes + "/bare\n").Write();
        target.Bundle("died").Install(Shell("kill -SEGV $$")).Write();
        target.Bundle("folder").Write();
        fs::create_directories(pathOf("folder"));
        target.Bundle("forbidden").Install(Shell(": > " + notes + "/forbidden")).Write();
        fs::permissions(pathOf("forbidden"), fs::perms::owner_read | fs::perms::owner_write);
        target.Bundle("fork")
            .Install(Shell(TEST_SLEEPER " & setsid " TEST_SLEEPER " & echo $! > " + notes + "/fork"))
            .Write();
        target.Bundle("loop").Write();
        fs::create_directories(target / "loop/script");
        fs::create_symlink("install.sh", pathOf("loop"));
        target.Bundle("noise").Install("#!/nowhere/interpreter\n").Write();
        target.Bundle("pipe").Write();
        fs::create_directories(target / "pipe/script");
        EXPECT_EQ(::mkfifo(pathOf("pipe").c_str(), 0700), 0);
        target.Bundle("suicide").Install(Shell("kill -KILL 0")).Write();
        target.Bundle("talker").Install(Shell("head -c 100000000 /dev/zero; head -c 1000000 /dev/zero >&2")).Write();
    }

    /// Moves in a bundle whose "install.sh" never ends. Returns the script's pid once it runs.
    pid_t HoldUp()
    {
        staging.Bundle("holder").Install(Shell("echo $$ > " + Note("holder") + "\nexec " TEST_SLEEPER)).Write();
        MoveIn("holder");
        Eventually(DaemonRunner::PATIENCE, [this] { return !Lines(ReadFile(Note("holder"))).empty(); });
        return static_cast<pid_t>(std::strtol(ReadFile(Note("holder")).c_str(), nullptr, 10));
    }
};

const std::vector<std::string> BAD{"bare", "died",  "folder", "forbidden", "fork",
                                   "loop", "noise", "pipe",   "suicide",   "talker"};

} // namespace

TEST_F(AHostileScript, OfTheInstallationHarmsNothingAtTheStart)
{
    WriteBad(collection, notes.Path().string());
    ASSERT_TRUE(StartServing());
    for (const std::string& bundle : BAD) {
        EXPECT_TRUE(IsStarted(bundle));
    }
    // The framework runs a file without an interpreter line in the shell.
    EXPECT_TRUE(Exists(Note("bare")));
    EXPECT_FALSE(Exists(Note("forbidden")));
    EXPECT_TRUE(ProcessOf::IsAlive(static_cast<pid_t>(std::strtol(ReadFile(Note("fork")).c_str(), nullptr, 10))));
    EXPECT_GE(daemon.Output().size(), 100'000'000U);
    EXPECT_TRUE(IsUnharmed());
}

TEST_F(AHostileScript, OfTheInstallationHarmsNothingWhenItsBundleIsDroppedIn)
{
    WriteBad(staging, notes.Path().string());
    ASSERT_TRUE(StartServing());
    MoveAllIn();
    for (const std::string& bundle : BAD) {
        EXPECT_TRUE(IsStarted(bundle));
    }
    EXPECT_TRUE(IsUnharmed());
}

TEST_F(AHostileScript, ThatNeverEndsBlocksEverythingElseUntilItIsKilled)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    ASSERT_TRUE(StartServing());
    const pid_t script = HoldUp();
    ASSERT_GT(script, 0);
    {
        const UnixClient client(SERVICE_SOCKET);
        const UnixClient other(SERVICE_SOCKET);
        ASSERT_TRUE(client.Send(PacketOf(4, 0, NameField("radio"))));
        ASSERT_TRUE(other.Send(PacketOf(4, 0, NameField("nobody"))));
        EXPECT_FALSE(client.Receive(500ms));
        EXPECT_FALSE(other.Receive(100ms));
        // Everything that does not need the manager's lock continues.
        ::kill(daemon.WaitForItem("radio", "radiod"), SIGKILL);
        EXPECT_NE(daemon.WaitForItem("radio", "radiod", 2), 0);
        ASSERT_TRUE(daemon.WaitForLog("radio.radiod relaunch done."));
        ::kill(script, SIGKILL);
        const auto reply = client.Receive(DaemonRunner::PATIENCE);
        ASSERT_TRUE(reply);
        EXPECT_EQ(HeaderOf(*reply).status, 200);
        const auto otherReply = other.Receive(DaemonRunner::PATIENCE);
        ASSERT_TRUE(otherReply);
        EXPECT_EQ(HeaderOf(*otherReply).status, 404);
    }
    EXPECT_TRUE(IsStarted("holder"));
    EXPECT_TRUE(IsUnharmed());
}

// The server finishes its current work before it ends. Here its current work is to wait for the script.
TEST_F(AHostileScript, ThatNeverEndsKeepsTheServerFromEndingUntilItIsKilled)
{
    ASSERT_TRUE(StartServing());
    const pid_t script = HoldUp();
    ASSERT_GT(script, 0);
    daemon.Signal(SIGTERM);
    EXPECT_FALSE(daemon.WaitForEnd(2s));
    EXPECT_FALSE(UnixClient(SERVICE_SOCKET).IsConnected()) << "it no longer serves";
    ::kill(script, SIGKILL);
    const auto end = daemon.WaitForEnd();
    ASSERT_TRUE(end);
    EXPECT_EQ(end->status, 0);
}

TEST_F(AHostileScript, OfADeletionThatNeverEndsKeepsTheServerFromEndingUntilItIsKilled)
{
    collection.Bundle("holder").Uninstall(Shell("echo $$ > " + Note("holder") + "\nexec " TEST_SLEEPER)).Write();
    ASSERT_TRUE(StartServing());
    const UnixClient client(SERVICE_SOCKET);
    ASSERT_TRUE(client.Send(PacketOf(4, 0, NameField("holder"))));
    ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return !Lines(ReadFile(Note("holder"))).empty(); }));
    daemon.Signal(SIGTERM);
    EXPECT_FALSE(daemon.WaitForEnd(1s));
    ::kill(static_cast<pid_t>(std::strtol(ReadFile(Note("holder")).c_str(), nullptr, 10)), SIGKILL);
    const auto end = daemon.WaitForEnd();
    ASSERT_TRUE(end);
    EXPECT_EQ(end->status, 0);
    EXPECT_EQ(daemon.CountInLog("success to rm : [" + In("holder") + "]."), 1) << "the request is finished first";
}

TEST_F(AHostileScript, OfAnUpdateHarmsNothing)
{
    collection.Bundle("died").Update(Shell("kill -KILL 0")).Write();
    collection.Bundle("rewriter")
        .Update(Shell("echo '[broken' > $(dirname $0)/../BundleManifest.ini; touch $(dirname $0)/new"))
        .Write();
    collection.Bundle("fork").Update(Shell(TEST_SLEEPER " &")).Write();
    ASSERT_TRUE(StartServing());
    for (const char* const bundle : {"died", "rewriter", "fork"}) {
        fs::last_write_time(In(bundle), fs::file_time_type::clock::now());
    }
    for (const char* const bundle : {"died", "rewriter", "fork"}) {
        EXPECT_TRUE(IsStarted(bundle, 2));
    }
    EXPECT_TRUE(IsUnharmed());
    EXPECT_TRUE(daemon.WaitForLog("update bundle[rewriter] failed.")) << "the server reads its manifest once more";
    EXPECT_EQ(daemon.CountInLog("dir item modified event happen."), 4) << "a script's other changes raise no event";
}

TEST_F(AHostileScript, ThatKillsTheGroupOfTheServerEndsIt)
{
    staging.Bundle("killer").Install(Shell("kill -TERM -$(cut -d ' ' -f 5 /proc/$PPID/stat)")).Write();
    ASSERT_TRUE(StartServing());
    MoveIn("killer");
    const auto end = daemon.WaitForEnd();
    ASSERT_TRUE(end);
    EXPECT_EQ(end->status, 0) << "as anybody else's SIGTERM would";
}

TEST_F(AHostileScript, ThatRemovesItsBundleLeavesNothingOfIt)
{
    staging.Bundle("radio").Copy("radiod", TEST_SLEEPER).Install(Shell("rm -rf " + In("radio"))).Write();
    ASSERT_TRUE(StartServing());
    MoveIn("radio");
    EXPECT_TRUE(daemon.WaitForLog("execl fail.errno[2]."));
    EXPECT_TRUE(daemon.WaitForLog("unload bundle done."));
    EXPECT_TRUE(IsUnknown("radio"));
    EXPECT_TRUE(IsUnharmed());
}

TEST_F(AHostileScript, ThatRemovesAnotherBundleUnloadsThatOne)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    staging.Bundle("remover").Install(Shell("rm -rf " + In("radio"))).Write();
    ASSERT_TRUE(StartServing());
    MoveIn("remover");
    EXPECT_TRUE(IsStarted("remover"));
    EXPECT_TRUE(daemon.WaitForLog("normal stop radio.radiod..."));
    EXPECT_TRUE(IsUnknown("radio"));
    EXPECT_TRUE(IsUnharmed());
}

TEST_F(AHostileScript, ThatRemovesTheCollectionLeavesTheBundlesRunningUntilItIsBack)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    staging.Bundle("remover").Install(Shell("rm -rf " + collection.Path())).Write();
    ASSERT_TRUE(StartServing());
    const pid_t item = daemon.WaitForItem("radio", "radiod");
    MoveIn("remover");
    EXPECT_TRUE(daemon.WaitForLog("can not be read: No such file or directory."));
    EXPECT_TRUE(ProcessOf::IsAlive(item));
    fs::create_directory(collection.Path());
    EXPECT_TRUE(daemon.WaitForLog("normal stop radio.radiod..."));
    EXPECT_TRUE(IsUnharmed());
}
