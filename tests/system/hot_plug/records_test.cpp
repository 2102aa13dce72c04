// The records of an addition, a removal and a change, one by one.

#include "system/hot_plug/hot_plug.h"

#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Records = std::vector<std::string>;

class TheRecords : public HotPlug {};

} // namespace

TEST_F(TheRecords, OfABundleThatIsAddedAreWrittenInOrder)
{
    staging.Bundle("radio").Install(Shell(": > " + Note("installed"))).Write();
    for (int i = 1; i <= 3; ++i) {
        RunShell("cp -r \"$STAGING\"/radio \"$STAGING\"/copy");
        NewRecords();
        RunShell("mv \"$STAGING\"/copy \"$COLLECTION\"/radio");
        ASSERT_TRUE(daemon.WaitForLog("start bundle done.", i));
        const std::string install = "run script[" + In("radio") + "/./script/install.sh]";
        EXPECT_EQ(NewRecords(), (Records{"INFO dir item add event happen.",
                                         "INFO add a new bundle dir.",
                                         "INFO load bundle from [" + In("radio") + "]...",
                                         "INFO =================bundle info=================",
                                         "INFO bundle name ------> [radio]",
                                         "INFO bundle load mode ------> [0]",
                                         "INFO ==================================================",
                                         "INFO " + install + "...",
                                         "INFO " + install + " done.",
                                         "INFO load bundle[radio] success.",
                                         "INFO load bundle[radio] done.",
                                         "INFO resolve bundle[radio]...",
                                         "INFO resolve bundle[radio] dependencies...",
                                         "INFO resolve bundle dependencies done.",
                                         "INFO bundle[radio] state changing[Installed] -> [Resolved]",
                                         "INFO resolve bundle done.",
                                         "INFO start bundle[radio]...",
                                         "INFO bundle[radio] state changing[Resolved] -> [Starting]",
                                         "INFO start bundle[radio] dependencies...",
                                         "INFO start bundle dependencies done.",
                                         "INFO start bundle[radio] activator...",
                                         "INFO start bundle[radio] activator done.",
                                         "INFO bundle[radio] state changing[Starting] -> [Active]",
                                         "INFO start bundle done."}));
        EXPECT_TRUE(Exists(Note("installed")));
        fs::remove_all(In("radio"));
        ASSERT_TRUE(daemon.WaitForLog("unload bundle done.", i));
    }
}

TEST_F(TheRecords, OfABundleThatIsRemovedAreWrittenInOrder)
{
    staging.Bundle("radio").Uninstall(Shell(": > " + Note("uninstalled"))).Write();
    for (int i = 1; i <= 3; ++i) {
        MoveIn("radio");
        ASSERT_TRUE(daemon.WaitForLog("start bundle done.", i));
        NewRecords();
        RunShell("mv \"$COLLECTION\"/radio \"$STAGING\"/");
        ASSERT_TRUE(daemon.WaitForLog("unload bundle done.", i));
        EXPECT_EQ(
            NewRecords(),
            (Records{"INFO dir item remove event happen.", "INFO remove a bundle dir.",
                     "INFO find bundle[" + In("radio") + "]...", "INFO find bundle done.", "INFO stop bundle[radio]...",
                     "INFO bundle[radio] state changing[Active] -> [Stopping]", "INFO stop bundle[radio] activator...",
                     "ERROR bundle process already exit.", "INFO stop bundle[radio] activator Done.",
                     "INFO bundle[radio] state changing[Stopping] -> [Resolved]", "INFO stop bundle done.",
                     "INFO unload bundle[radio]...", "INFO unload bundle done."}));
    }
    // The script is gone with the directory.
    EXPECT_FALSE(Exists(Note("uninstalled")));
}

TEST_F(TheRecords, OfABundleThatIsModifiedAreWrittenInOrder)
{
    staging.Bundle("radio").Update(Shell(": > " + Note("updated"))).Write();
    MoveIn("radio");
    ASSERT_TRUE(IsStarted("radio"));
    for (int i = 1; i <= 3; ++i) {
        NewRecords();
        RunShell("sed -i 's/$/ /' \"$COLLECTION\"/radio/BundleManifest.ini");
        ASSERT_TRUE(daemon.WaitForLog("start bundle done.", i + 1));
        const std::string update = "run script[" + In("radio") + "/./script/update.sh]";
        EXPECT_EQ(NewRecords(), (Records{"INFO dir item modified event happen.",
                                         "INFO update a bundle dir.",
                                         "INFO find bundle[" + In("radio") + "]...",
                                         "INFO find bundle done.",
                                         "INFO =================bundle info=================",
                                         "INFO bundle name ------> [radio]",
                                         "INFO bundle load mode ------> [0]",
                                         "INFO ==================================================",
                                         "INFO " + update + "...",
                                         "INFO " + update + " done.",
                                         "INFO stop bundle[radio]...",
                                         "INFO bundle[radio] state changing[Active] -> [Stopping]",
                                         "INFO stop bundle[radio] activator...",
                                         "ERROR bundle process already exit.",
                                         "INFO stop bundle[radio] activator Done.",
                                         "INFO bundle[radio] state changing[Stopping] -> [Resolved]",
                                         "INFO stop bundle done.",
                                         "INFO start bundle[radio]...",
                                         "INFO bundle[radio] state changing[Resolved] -> [Starting]",
                                         "INFO start bundle[radio] dependencies...",
                                         "INFO start bundle dependencies done.",
                                         "INFO start bundle[radio] activator...",
                                         "INFO start bundle[radio] activator done.",
                                         "INFO bundle[radio] state changing[Starting] -> [Active]",
                                         "INFO start bundle done."}));
    }
    EXPECT_TRUE(Exists(Note("updated")));
}
