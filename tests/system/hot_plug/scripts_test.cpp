// Scripts that change their bundle, and changes by others while a script runs.

#include "system/hot_plug/hot_plug.h"

#include <filesystem>

namespace {

namespace fs = std::filesystem;

class AnUpdate : public HotPlug {};

/// A bundle whose "update.sh" waits in its first run until the test lets it continue.
class AManifestThatComes : public HotPlug {
protected:
    void SetUp() override
    {
        HotPlug::SetUp();
        staging.Bundle("radio")
            .Copy("radiod", TEST_SLEEPER)
            .Copy("newd", TEST_SLEEPER)
            .Update(Shell("[ -e " + Note("begun") + " ] && exit\n: > " + Note("begun") + "\nuntil [ -e " + Note("go") +
                          " ]; do sleep 0.05; done"))
            .Write();
        newManifest = ReadFile(staging / "radio/BundleManifest.ini");
        collection.Bundle("radio").Item("radiod").Write(); // only the manifest is used; it names one item
        oldManifest = ReadFile(In("radio") + "/BundleManifest.ini");
        fs::remove_all(In("radio"));
        WriteFile(staging / "radio/BundleManifest.ini", oldManifest);
        MoveIn("radio");
        ASSERT_TRUE(IsStarted("radio"));
        RunShell("touch \"$COLLECTION\"/radio");
        ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return Exists(Note("begun")); }));
    }

    void Install(const std::string& manifest) const
    {
        WriteFile(staging / "draft", manifest);
        fs::rename(staging / "draft", In("radio") + "/BundleManifest.ini");
    }

    std::string oldManifest;
    std::string newManifest;
};

} // namespace

TEST_F(AManifestThatComes, WhileAScriptOfItsBundleRunsCausesOneMoreUpdate)
{
    Install(newManifest);
    WriteFile(Note("go"), "");
    ASSERT_TRUE(IsStarted("radio", 3));
    EXPECT_NE(daemon.WaitForItem("radio", "newd"), 0);
    PassScans();
    EXPECT_EQ(Modified(), 2);
}

TEST_F(AManifestThatComes, WithTheLoadedContentIsNoChange)
{
    Install(newManifest);
    Install(oldManifest);
    WriteFile(Note("go"), "");
    ASSERT_TRUE(IsStarted("radio", 2));
    PassScans();
    EXPECT_EQ(Modified(), 1);
}

TEST_F(AnUpdate, IsNotRepeatedForChangesOfItsScript)
{
    staging.Bundle("radio")
        .Update(Shell("cd \"$(dirname \"$0\")\"/.. && cp BundleManifest.ini .new && mv .new BundleManifest.ini && "
                      "touch BundleManifest.ini && mkdir -p bin && date > bin/stamp && date > script/stamp"))
        .Write();
    MoveIn("radio");
    ASSERT_TRUE(IsStarted("radio"));
    for (int i = 1; i <= 3; ++i) {
        RunShell("touch \"$COLLECTION\"/radio");
        ASSERT_TRUE(IsStarted("radio", i + 1));
        PassScans();
        EXPECT_EQ(Modified(), i);
    }
}

// Otherwise it would be restarted endlessly.
TEST_F(AnUpdate, IsRepeatedOnceIfItsScriptChangesTheManifestEachTime)
{
    staging.Bundle("radio").Update(Shell("echo '; updated' >> \"$(dirname \"$0\")\"/../BundleManifest.ini")).Write();
    MoveIn("radio");
    ASSERT_TRUE(IsStarted("radio"));
    for (int i = 1; i <= 2; ++i) {
        RunShell("touch \"$COLLECTION\"/radio");
        ASSERT_TRUE(IsStarted("radio", 2 * i + 1));
        PassScans();
        EXPECT_EQ(Modified(), 2 * i);
    }
}

TEST_F(AnUpdate, IsNotMadeForWhatTheInstallScriptChanges)
{
    staging.Bundle("radio")
        .Install(Shell("cd \"$(dirname \"$0\")\"/.. && touch BundleManifest.ini && mkdir -p bin && date > bin/stamp"))
        .Write();
    MoveIn("radio");
    ASSERT_TRUE(IsStarted("radio"));
    PassScans();
    EXPECT_EQ(Modified(), 0);
}

TEST_F(AnUpdate, IsMadeForAManifestThatTheInstallScriptChanges)
{
    staging.Bundle("radio")
        .Copy("radiod", TEST_SLEEPER)
        .Install(Shell("cd \"$(dirname \"$0\")\"/.. && grep -q item BundleManifest.ini || "
                       "printf '[item]\\nitem_name = radiod\\n' >> BundleManifest.ini"))
        .Manifest("[global]\nbundle_name = radio\nbundle_load_mode = 0\n")
        .Write();
    MoveIn("radio");
    ASSERT_TRUE(IsStarted("radio", 2));
    EXPECT_NE(daemon.WaitForItem("radio", "radiod"), 0);
    PassScans();
    EXPECT_EQ(Modified(), 1);
}

// It is unloaded because its requirement is missing. Retries would load and unload it endlessly.
TEST_F(AnUpdate, IsAttemptedOnceForAScriptThatChangesTheManifestOfABundleThatCannotStart)
{
    staging.Bundle("radio")
        .Requires("tuner")
        .Uninstall(Shell("echo '; unloaded' >> \"$(dirname \"$0\")\"/../BundleManifest.ini"))
        .Write();
    MoveIn("radio");
    ASSERT_TRUE(daemon.WaitForLog("load bundle[radio] success.", 2));
    PassScans(5);
    EXPECT_EQ(daemon.CountInLog("load bundle[radio] success."), 2);
    EXPECT_EQ(Modified(), 1);
}
