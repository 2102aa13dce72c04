// Bundles that fail when they are added, removed or changed, and what the log says about each.

#include "system/hot_plug/hot_plug.h"

#include <filesystem>

namespace {

namespace fs = std::filesystem;
using Records = std::vector<std::string>;

class ABrokenBundle : public HotPlug {
protected:
    /// Moves it in, and expects it to fail and to leave nothing behind.
    void ExpectNotLoaded(const BundleBuilder& bundle, const Records& expected)
    {
        bundle.Write();
        MoveIn("radio");
        ASSERT_TRUE(daemon.WaitForLog(expected.back().substr(std::string("ERROR ").size())));
        EXPECT_EQ(NewRecords(), expected);
        EXPECT_TRUE(IsUnknown("radio"));
        EXPECT_TRUE(daemon.IsRunning());
    }

    Records Failure(const Records& why) const
    {
        Records records{"INFO dir item add event happen.", "INFO add a new bundle dir.",
                        "INFO load bundle from [" + In("radio") + "]..."};
        records.insert(records.end(), why.begin(), why.end());
        records.push_back("ERROR failed to load bundle from [" + In("radio") + "].");
        return records;
    }
};

class ABundleThatCannotStart : public HotPlug {};
class ABundleThatCannotBeRemoved : public HotPlug {};
class AnEntryThatIsNoBundle : public HotPlug {};
class ABrokenUpdate : public HotPlug {};
class AMendedBundle : public HotPlug {};

} // namespace

TEST_F(ABrokenBundle, WithoutAManifestIsNotLoaded)
{
    ExpectNotLoaded(staging.Bundle("radio").NoManifest(),
                    Failure({"ERROR resource file[" + In("radio") + "/BundleManifest.ini] does not exist.",
                             "INFO exception info: [File not found: [./BundleManifest.ini] not found.]."}));
}

TEST_F(ABrokenBundle, WithAManifestThatDoesNotParseIsNotLoaded)
{
    ExpectNotLoaded(staging.Bundle("radio").Manifest("[global]\nbundle_name = radio\nbundle_load_mode = fast\n"),
                    Failure({"ERROR parse bundle manifest fail.",
                             "INFO exception info: [Syntax error: Not a valid integer: fast]."}));
}

// At the start of the server the same bundle would end it.
TEST_F(ABrokenBundle, WithATooShortItemNameFailsAlone)
{
    collection.Bundle("tuner").Write();
    ASSERT_TRUE(IsStarted("tuner"));
    NewRecords();
    ExpectNotLoaded(staging.Bundle("radio").Item("so"),
                    Failure({"INFO =================bundle info=================", "INFO bundle name ------> [radio]",
                             "INFO bundle load mode ------> [0]", "INFO ==================", "INFO bundle item info : ",
                             "INFO bundle item name ------> [so]", "ERROR parse bundle manifest fail.",
                             "INFO exception info: [item name[so] is shorter than three characters]."}));
    RunShell("touch \"$COLLECTION\"/tuner");
    EXPECT_TRUE(IsStarted("tuner", 2));
}

TEST_F(ABrokenBundle, WithAnUnknownModeIsRefusedAfterItsInstallation)
{
    ExpectNotLoaded(staging.Bundle("radio").Mode("7").Install(Shell(": > " + Note("installed"))),
                    {"INFO dir item add event happen.", "INFO add a new bundle dir.",
                     "INFO load bundle from [" + In("radio") + "]...",
                     "INFO =================bundle info=================", "INFO bundle name ------> [radio]",
                     "INFO bundle load mode ------> [7]", "INFO ==================================================",
                     "INFO run script[" + In("radio") + "/./script/install.sh]...",
                     "INFO run script[" + In("radio") + "/./script/install.sh] done.",
                     "ERROR create bundle activator fail.", "ERROR load bundle from [" + In("radio") + "] fail."});
    EXPECT_TRUE(Exists(Note("installed")));
}

TEST_F(ABrokenBundle, WithTheNameOfAnotherIsRefusedAndTheOtherKeepsRunning)
{
    staging.BundleIn("first").Name("radio").Copy("radiod", TEST_SLEEPER).Write();
    MoveIn("first");
    ASSERT_TRUE(IsStarted("radio"));
    const pid_t item = daemon.WaitForItem("first", "radiod");
    staging.BundleIn("second").Name("radio").Write();
    MoveIn("second");
    ASSERT_TRUE(daemon.WaitForLog("load bundle from [" + In("second") + "] fail."));
    EXPECT_EQ(daemon.CountInLog("bundle[radio] already exists."), 1);
    fs::remove_all(In("second"));
    ASSERT_TRUE(daemon.WaitForLog("find bundle[" + In("second") + "] fail."));
    EXPECT_TRUE(ProcessOf::IsAlive(item));
    EXPECT_EQ(RequestDelete("radio"), 200);
}

TEST_F(ABundleThatCannotStart, BecauseItsRequirementIsMissingIsUnloadedAgain)
{
    staging.Bundle("radio").Requires("tuner").Uninstall(Shell(": > " + Note("uninstalled"))).Write();
    MoveIn("radio");
    const std::string uninstall = "run script[" + In("radio") + "/./script/uninstall.sh]";
    ASSERT_TRUE(daemon.WaitForLog(uninstall + " done."));
    EXPECT_EQ(NewRecords(),
              (Records{"INFO dir item add event happen.", "INFO add a new bundle dir.",
                       "INFO load bundle from [" + In("radio") + "]...",
                       "INFO =================bundle info=================", "INFO bundle name ------> [radio]",
                       "INFO bundle load mode ------> [0]", "INFO bundle dependencies ------> [tuner]",
                       "INFO ==================================================", "INFO load bundle[radio] success.",
                       "INFO load bundle[radio] done.", "INFO resolve bundle[radio]...",
                       "INFO resolve bundle[radio] dependencies...", "INFO " + uninstall + "...",
                       "INFO " + uninstall + " done."}));
    EXPECT_TRUE(Exists(Note("uninstalled")));
    EXPECT_TRUE(IsUnknown("radio"));
}

TEST_F(ABundleThatCannotStart, IsNotRetriedWhenItsOwnScriptsWriteIntoIt)
{
    const std::string write = Shell(": > " + In("radio") + "/written.$$; : > " + In("radio") + "/bin/written.$$");
    staging.Bundle("radio").Requires("tuner").Install(write).Uninstall(write).Write();
    MoveIn("radio");
    ASSERT_TRUE(daemon.WaitForLog("run script[" + In("radio") + "/./script/uninstall.sh] done."));
    PassScans();
    EXPECT_EQ(daemon.CountInLog("load bundle[radio] success."), 1);
    EXPECT_EQ(Modified(), 0);
}

TEST_F(ABundleThatCannotStart, IsUnloadedAgain)
{
    staging.Bundle("radio").ThreadMode().Item("radiod", "").Uninstall(Shell(": > " + Note("uninstalled"))).Write();
    MoveIn("radio");
    const std::string uninstall = "run script[" + In("radio") + "/./script/uninstall.sh]";
    ASSERT_TRUE(daemon.WaitForLog(uninstall + " done."));
    const Records records = NewRecords();
    EXPECT_TRUE(InOrder(
        records, {"INFO start bundle[radio]...", "INFO bundle[radio] state changing[Resolved] -> [Starting]",
                  "INFO start bundle[radio] activator...", "INFO bundle[radio] state changing[Starting] -> [Resolved]",
                  "INFO " + uninstall + "...", "INFO " + uninstall + " done."}));
    EXPECT_EQ(records.back(), "INFO " + uninstall + " done.");
    EXPECT_TRUE(Exists(Note("uninstalled")));
    EXPECT_TRUE(IsUnknown("radio"));
}

TEST_F(ABundleThatCannotBeRemoved, IsNotLoadedAgainWhenItsUninstallScriptHasWritten)
{
    daemon.Stop();
    Interpose("REFUSE_FORK_WHEN", Note("refuse"));
    collection.Bundle("radio").Uninstall(Shell(": > " + In("radio") + "/written; : > " + Note("refuse"))).Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(RequestDelete("radio"), 400);
    EXPECT_TRUE(Exists(In("radio") + "/written"));
    PassScans();
    EXPECT_EQ(Modified(), 0);
    EXPECT_TRUE(IsUnknown("radio"));
}

TEST_F(AnEntryThatIsNoBundle, IsIgnoredWhenItIsAPlainFile)
{
    for (int i = 1; i <= 3; ++i) {
        WriteFile(In("note"), "");
        ASSERT_TRUE(daemon.WaitForLog("dir item add event happen.", i));
        fs::remove(In("note"));
        ASSERT_TRUE(daemon.WaitForLog("find bundle[" + In("note") + "] fail.", i));
        EXPECT_EQ(NewRecords(), (Records{"INFO dir item add event happen.", "INFO dir item remove event happen.",
                                         "INFO remove a bundle dir.", "INFO find bundle[" + In("note") + "]...",
                                         "ERROR bundle with storage path[" + In("note") + "] not found.",
                                         "ERROR find bundle[" + In("note") + "] fail."}));
    }
}

TEST_F(AnEntryThatIsNoBundle, IsLookedForOnceWhenItIsAPlainFileThatChanges)
{
    WriteFile(In("note"), "");
    ASSERT_TRUE(daemon.WaitForLog("dir item add event happen."));
    NewRecords();
    WriteFile(In("note"), "more");
    ASSERT_TRUE(daemon.WaitForLog("find bundle[" + In("note") + "] fail."));
    EXPECT_EQ(NewRecords(), (Records{"INFO dir item modified event happen.", "INFO update a bundle dir.",
                                     "INFO find bundle[" + In("note") + "]...",
                                     "ERROR bundle with storage path[" + In("note") + "] not found.",
                                     "ERROR find bundle[" + In("note") + "] fail."}));
    PassScans();
    EXPECT_EQ(Added(), 1) << "a plain file is not tried again";
    EXPECT_EQ(Modified(), 1);
}

TEST_F(AnEntryThatIsNoBundle, ChangesNothingWhenItIsRemoved)
{
    collection.Bundle("tuner").Copy("tunerd", TEST_SLEEPER).Write();
    fs::create_directory(In("empty"));
    ASSERT_TRUE(IsStarted("tuner"));
    const pid_t item = daemon.WaitForItem("tuner", "tunerd");
    ASSERT_TRUE(daemon.WaitForLog("failed to load bundle from [" + In("empty") + "]."));
    fs::remove(In("empty"));
    ASSERT_TRUE(daemon.WaitForLog("find bundle[" + In("empty") + "] fail."));
    EXPECT_TRUE(ProcessOf::IsAlive(item));
    EXPECT_EQ(RequestDelete("tuner"), 200);
}

TEST_F(AnEntryThatIsNoBundle, CanBeADirectoryThatARequestHasDeleted)
{
    staging.Bundle("radio").Write();
    MoveIn("radio");
    ASSERT_TRUE(IsStarted("radio"));
    EXPECT_EQ(RequestDelete("radio"), 200);
    ASSERT_TRUE(daemon.WaitForLog("dir item remove event happen."));
    EXPECT_TRUE(daemon.WaitForLog("find bundle[" + In("radio") + "] fail."));
    PassScans();
    EXPECT_EQ(Removed(), 1);
    EXPECT_EQ(daemon.CountInLog("uninstalling bundle["), 0);
}

TEST_F(ABrokenUpdate, KeepsTheOldBundleRunning)
{
    staging.Bundle("radio").Copy("radiod", TEST_SLEEPER).Update(Shell(": > " + Note("updated"))).Write();
    MoveIn("radio");
    ASSERT_TRUE(IsStarted("radio"));
    const pid_t item = daemon.WaitForItem("radio", "radiod");
    const std::string manifest = ReadFile(In("radio") + "/BundleManifest.ini");
    for (int i = 1; i <= 3; ++i) {
        NewRecords();
        WriteFile(staging / "draft", "[global]\nbundle_load_mode = " + std::to_string(i) + "\n");
        RunShell("mv \"$STAGING\"/draft \"$COLLECTION\"/radio/BundleManifest.ini");
        ASSERT_TRUE(daemon.WaitForLog("update bundle[radio] failed.", i));
        EXPECT_EQ(NewRecords(),
                  (Records{"INFO dir item modified event happen.", "INFO update a bundle dir.",
                           "INFO find bundle[" + In("radio") + "]...", "INFO find bundle done.",
                           "ERROR parse bundle manifest fail.", "INFO exception info: [Not found: global.bundle_name].",
                           "ERROR update bundle[radio] failed."}));
    }
    EXPECT_TRUE(ProcessOf::IsAlive(item));
    EXPECT_FALSE(Exists(Note("updated")));
    WriteFile(staging / "draft", manifest);
    RunShell("mv \"$STAGING\"/draft \"$COLLECTION\"/radio/BundleManifest.ini");
    EXPECT_TRUE(IsStarted("radio", 2));
    EXPECT_TRUE(Exists(Note("updated")));
    EXPECT_NE(daemon.WaitForItem("radio", "radiod", 2), item);
}

TEST_F(AMendedBundle, IsLoadedWhenItHadNoManifest)
{
    for (const char* const name : {"radio", "tuner", "alarm"}) {
        staging.Bundle(name).NoManifest().Item("itemd", Shell("exec sleep 1000")).Write();
        MoveIn(name);
        ASSERT_TRUE(daemon.WaitForLog("failed to load bundle from [" + In(name) + "]."));
    }
    for (const char* const name : {"radio", "tuner", "alarm"}) {
        staging.Bundle(name).Item("itemd").Write();
        fs::rename(staging / name + "/BundleManifest.ini", In(name) + "/BundleManifest.ini");
    }
    for (const char* const name : {"radio", "tuner", "alarm"}) {
        EXPECT_TRUE(IsStarted(name));
        EXPECT_EQ(daemon.CountInLog("find bundle[" + In(name) + "] fail."), 1) << "the modified event";
        EXPECT_NE(daemon.WaitForItem(name, "itemd"), 0);
    }
    EXPECT_EQ(Added(), 6);
    EXPECT_EQ(Modified(), 3);
}

TEST_F(AMendedBundle, IsLoadedWhenItCouldNotBeResolved)
{
    staging.Bundle("radio").Requires("tuner").Write();
    MoveIn("radio");
    ASSERT_TRUE(daemon.WaitForLog("resolve bundle[radio] dependencies..."));
    staging.Bundle("tuner").Write();
    MoveIn("tuner");
    ASSERT_TRUE(IsStarted("tuner"));
    PassScans();
    EXPECT_EQ(daemon.CountInLog("bundle[radio] state changing[Starting] -> [Active]"), 0)
        << "the server retries nothing by itself";
    RunShell("touch \"$COLLECTION\"/radio");
    EXPECT_TRUE(IsStarted("radio"));
}

TEST_F(AMendedBundle, IsLoadedWhenItWasBrokenAtTheStartOfTheServer)
{
    daemon.Stop();
    collection.Bundle("radio").Manifest("[global]\n").Write();
    ASSERT_TRUE(daemon.StartServing());
    collection.Bundle("radio").Write();
    EXPECT_TRUE(IsStarted("radio"));
}
