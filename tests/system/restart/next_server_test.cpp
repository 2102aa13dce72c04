#include "system/restart/after_a_kill.h"

#include <csignal>
#include <filesystem>
#include <set>

namespace {

class TheNextServer : public AfterAKill {};
class AHalfDeletedBundle : public AfterAKill {};

} // namespace

TEST_F(TheNextServer, StartsASecondCopyBesideEachItemThatIsLeft)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    collection.Bundle("tuner").Copy("tunerd", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    const pid_t first = daemon.Pid();
    daemon.Stop(SIGKILL);
    ASSERT_TRUE(daemon.StartServing());
    const std::multiset<std::string> twice{ProgramOf("radio", "radiod"), ProgramOf("radio", "radiod"),
                                           ProgramOf("tuner", "tunerd"), ProgramOf("tuner", "tunerd")};
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [&] { return daemon.Programs() == twice; }));
    // The items of the first server are still in its session.
    EndSession(first);
    const std::multiset<std::string> once{ProgramOf("radio", "radiod"), ProgramOf("tuner", "tunerd")};
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [&] { return daemon.Programs() == once; }));
    EXPECT_EQ(daemon.CountInLog("relaunch"), 0);
}

TEST_F(AHalfDeletedBundle, IsNamedByTheLogOfTheServerThatWasKilled)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    collection.Bundle("tuner").Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(UnfinishedDeletion(), "");
    EXPECT_EQ(RequestDelete("tuner"), 200);
    EXPECT_EQ(UnfinishedDeletion(), "") << "this deletion is finished";
    std::filesystem::rename(In("radio"), staging / "radio");
    ASSERT_TRUE(daemon.WaitForLog("unload bundle[radio]..."));
    EXPECT_EQ(UnfinishedDeletion(), "") << "this removal was not requested";
    daemon.Stop(SIGKILL);
    EXPECT_EQ(UnfinishedDeletion(), "");
}

TEST_F(AHalfDeletedBundle, WithoutItsManifestIsNamedByTheNextServerAndNotTouched)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).NoManifest().Write();
    collection.Bundle("tuner").Write();
    const Tree before = TreeOf(In("radio"));
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(daemon.CountInLog("failed to load bundles from " + In("radio") +
                                ":File not found: [./BundleManifest.ini] not found."),
              1);
    EXPECT_EQ(daemon.CountInLog("bundle[tuner] state changing[Starting] -> [Active]"), 1);
    EXPECT_EQ(TreeOf(In("radio")), before);
    EXPECT_TRUE(daemon.Programs().empty());
}

TEST_F(AHalfDeletedBundle, WithItsManifestIsStartedAndCanBeDeletedAgain)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Item("ukwd").Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(daemon.CountInLog("bundle[radio] state changing[Starting] -> [Active]"), 1);
    EXPECT_TRUE(daemon.WaitForLog("execl fail.errno[2]."));
    EXPECT_EQ(daemon.Programs(), std::multiset<std::string>{ProgramOf("radio", "radiod")});
    EXPECT_EQ(RequestDelete("radio"), 200);
    EXPECT_FALSE(Exists(In("radio")));
}
