// Every way to add, change and remove bundles while the daemon runs, each with three bundles at once.

#include "system/hot_plug/hot_plug.h"

#include <csignal>
#include <cstdlib>
#include <ostream>

namespace {

struct Way {
    const char* name;
    const char* command; // "$B" is the bundle
    const char* tool = "sh";
};

std::ostream& operator<<(std::ostream& stream, const Way& way)
{
    return stream << way.name;
}

std::string NameOf(const ::testing::TestParamInfo<Way>& info)
{
    return info.param.name;
}

const std::vector<std::string> BUNDLES{"radio", "tuner", "alarm"};

class ByAWay : public HotPlug, public ::testing::WithParamInterface<Way> {
protected:
    void SetUp() override
    {
        if (std::system((std::string("command -v ") + GetParam().tool + " >/dev/null").c_str()) != 0) {
            GTEST_SKIP() << "there is no " << GetParam().tool << " here";
        }
        WriteBundles(staging);
        HotPlug::SetUp();
    }

    /// One bundle has a process, to see it start and end. The others have none, which is quicker.
    static void WriteBundles(const CollectionBuilder& place)
    {
        place.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
        place.Bundle("tuner").Write();
        place.Bundle("alarm").Write();
    }

    void ForEach(const std::string& command) const
    {
        RunShell("set -e; for B in radio tuner alarm; do " + command + "; done");
    }

    void ExpectAllStarted(int times = 1)
    {
        for (const std::string& bundle : BUNDLES) {
            EXPECT_TRUE(IsStarted(bundle, times));
        }
    }
};

class ABundleThatIsAdded : public ByAWay {};

/// The bundles are there when the daemon starts.
class ABundleThatIsThere : public ByAWay {
protected:
    void SetUp() override
    {
        WriteBundles(collection);
        ForEach("mkdir -p \"$COLLECTION\"/$B/bin \"$COLLECTION\"/$B/script");
        ByAWay::SetUp();
        if (!IsSkipped()) {
            ExpectAllStarted();
        }
    }
};
class ABundleThatIsRemoved : public ABundleThatIsThere {};
class ABundleThatIsChanged : public ABundleThatIsThere {};

} // namespace

TEST_P(ABundleThatIsAdded, IsLoadedAndStartedOnce)
{
    ForEach("tar -C \"$STAGING\" -cf \"$STAGING\"/$B.tar $B");
    ForEach(GetParam().command);
    ExpectAllStarted();
    EXPECT_NE(daemon.WaitForItem("radio", "radiod"), 0);
    PassScans();
    EXPECT_EQ(Added(), 3);
    EXPECT_EQ(Modified(), 0);
    EXPECT_EQ(Removed(), 0);
    EXPECT_EQ(daemon.CountInLog("failed to load"), 0);
}

INSTANTIATE_TEST_SUITE_P(By, ABundleThatIsAdded,
                         ::testing::Values(Way{"Copying", "cp -r \"$STAGING\"/$B \"$COLLECTION\"/"},
                                           Way{"CopyingWithItsAttributes", "cp -a \"$STAGING\"/$B \"$COLLECTION\"/"},
                                           Way{"Moving", "mv \"$STAGING\"/$B \"$COLLECTION\"/"},
                                           Way{"Unpacking", "tar -C \"$COLLECTION\" -xf \"$STAGING\"/$B.tar"},
                                           Way{"Mirroring", "rsync -a \"$STAGING\"/$B \"$COLLECTION\"/", "rsync"},
                                           Way{"LinkingToIt", "ln -s \"$STAGING\"/$B \"$COLLECTION\"/$B"}),
                         NameOf);

TEST_P(ABundleThatIsRemoved, IsStoppedAndUnloadedOnce)
{
    RunShell("rm -r \"$STAGING\"/*");
    const pid_t item = daemon.WaitForItem("radio", "radiod");
    ASSERT_NE(item, 0);
    ForEach(GetParam().command);
    EXPECT_TRUE(daemon.WaitForLog("unload bundle done.", 3));
    for (const std::string& bundle : BUNDLES) {
        EXPECT_TRUE(IsUnknown(bundle));
    }
    EXPECT_TRUE(daemon.WaitForLog("normal stop radio.radiod..."));
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [item] { return !ProcessOf::IsAlive(item); }));
    PassScans();
    EXPECT_EQ(Added(), 0);
    EXPECT_EQ(Removed(), 3);
    EXPECT_EQ(daemon.PidsOf("radio", "radiod").size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(By, ABundleThatIsRemoved,
                         ::testing::Values(Way{"Removing", "rm -rf \"$COLLECTION\"/$B"},
                                           Way{"MovingItAway", "mv \"$COLLECTION\"/$B \"$STAGING\"/"}),
                         NameOf);

TEST_P(ABundleThatIsChanged, IsUpdatedAndRestarted)
{
    const pid_t item = daemon.WaitForItem("radio", "radiod");
    ASSERT_NE(item, 0);
    ForEach("echo '; changed' >> \"$STAGING\"/$B/BundleManifest.ini");
    ForEach(GetParam().command);
    ExpectAllStarted(2);
    EXPECT_NE(daemon.WaitForItem("radio", "radiod", 2), item);
    EXPECT_FALSE(ProcessOf::IsAlive(item));
    PassScans();
    // A way of several steps may be seen by two scans.
    EXPECT_GE(Modified(), 3);
    EXPECT_LE(Modified(), 6);
    EXPECT_EQ(daemon.CountInLog("update bundle["), 0);
    EXPECT_EQ(Removed(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    By, ABundleThatIsChanged,
    ::testing::Values(Way{"EditingTheManifestInPlace", "echo '; new' >> \"$COLLECTION\"/$B/BundleManifest.ini"},
                      Way{"EditingTheManifestAsEditorsDo", "sed -i 's/$/ /' \"$COLLECTION\"/$B/BundleManifest.ini"},
                      Way{"CopyingOverTheManifest", "cp \"$STAGING\"/$B/BundleManifest.ini \"$COLLECTION\"/$B/"},
                      Way{"MovingOverTheManifest", "mv \"$STAGING\"/$B/BundleManifest.ini \"$COLLECTION\"/$B/"},
                      Way{"TouchingTheDirectory", "touch \"$COLLECTION\"/$B"},
                      Way{"AddingAFile", "echo > \"$COLLECTION\"/$B/README"},
                      Way{"AddingAProgram", "echo > \"$COLLECTION\"/$B/bin/another"},
                      Way{"AddingAScript", "echo > \"$COLLECTION\"/$B/script/notes"},
                      Way{"Mirroring", "rsync -a \"$STAGING\"/$B \"$COLLECTION\"/", "rsync"},
                      Way{"MirroringWithDelayedUpdates", "rsync -a --delay-updates \"$STAGING\"/$B \"$COLLECTION\"/",
                          "rsync"}),
    NameOf);
