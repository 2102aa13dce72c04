// Entries of each kind: directories, plain files and links, moved, renamed and replaced.

#include "unit/watcher/watched_collection.h"

#include <filesystem>
#include <string>

namespace {

namespace fs = std::filesystem;

class AnEntry : public WatchingACollection {};

} // namespace

// Tools for archives and mirrors restore a directory's modification time. The time of its inode cannot be restored.
TEST_F(AnEntry, IsModifiedByAMirrorThatRestoresEveryTime)
{
    MakeBundle(In("radio"));
    RunShell("touch -d 2001-01-01 \"$COLLECTION\"/radio/bin \"$COLLECTION\"/radio");
    Watch();
    EXPECT_EQ(
        EventsBetweenTwoScans("cd \"$COLLECTION\"/radio/bin && echo new > .tunerd.new && mv .tunerd.new tunerd && "
                              "touch -d 2001-01-01 ."),
        Events{"modified radio"});
}

TEST_F(AnEntry, IsAddedByTheFirstScanThatSeesItWhenItWasMovedIn)
{
    AwaitTickAfter(MakeBundle(Aside("radio")) + "/BundleManifest.ini");
    Watch();
    recorder.SetHandler([this](const std::string& event) {
        if (event == "added first-scan") {
            WriteFile(In("second-scan"), "");
        }
    });
    EXPECT_EQ(EventsBetweenTwoScans([this] {
                  fs::rename(Aside("radio"), In("radio"));
                  WriteFile(In("first-scan"), "");
              }),
              (Events{"added first-scan", "added radio", "added second-scan"}));
}

TEST_F(AnEntry, ThatIsAPlainFileIsAddedModifiedAndRemoved)
{
    WriteFile(In("old"), "");
    Watch();
    // Each command makes one change, because a busy machine may interrupt it for longer than changes take to settle.
    EXPECT_EQ(EventsOf(": > \"$COLLECTION\"/note"), Events{"added note"});
    for (const char* const command :
         {"echo more >> \"$COLLECTION\"/note", "touch \"$COLLECTION\"/note", "chmod 600 \"$COLLECTION\"/note",
          "echo > \"$ASIDE\"/other && mv \"$ASIDE\"/other \"$COLLECTION\"/note"}) {
        EXPECT_EQ(EventsOf(command), Events{"modified note"}) << command;
    }
    EXPECT_EQ(EventsOf("rm \"$COLLECTION\"/note"), Events{"removed note"});
    EXPECT_EQ(EventsOf("echo >> \"$COLLECTION\"/old"), Events{"modified old"});
}

// The server asks for another addition when it finds no bundle, as with each plain file.
TEST_F(AnEntry, ThatIsAPlainFileIsNotOfferedAgain)
{
    Watch();
    recorder.SetHandler([this](const std::string& event) {
        if (event == "modified note") {
            watcher->RetryAdd(In("note"));
        }
    });
    EXPECT_EQ(EventsOf(": > \"$COLLECTION\"/note"), Events{"added note"});
    EXPECT_EQ(EventsOf("echo >> \"$COLLECTION\"/note"), Events{"modified note"});
}

TEST_F(AnEntry, ThatWasThereBeforeTheWatcherRaisesNothing)
{
    MakeBundle(In("radio"));
    WriteFile(In("note"), "");
    Watch();
    EXPECT_EQ(EventsOf([] {}), Events{});
}

TEST_F(AnEntry, ThatIsRenamedIsRemovedBeforeItIsAdded)
{
    MakeBundle(In("alarm"));
    AwaitTickAfter(MakeBundle(In("radio")) + "/BundleManifest.ini");
    Watch();
    EXPECT_EQ(EventsBetweenTwoScans("mv \"$COLLECTION\"/radio \"$COLLECTION\"/opera"),
              (Events{"removed radio", "added opera"}));
    EXPECT_EQ(EventsBetweenTwoScans("mv \"$COLLECTION\"/opera \"$COLLECTION\"/zulu"),
              (Events{"removed opera", "added zulu"}));
    EXPECT_EQ(EventsBetweenTwoScans("mv \"$COLLECTION\"/alarm \"$ASIDE\" && mv \"$COLLECTION\"/zulu "
                                    "\"$COLLECTION\"/alarm"),
              (Events{"removed zulu", "modified alarm"}));
}

TEST_F(AnEntry, ThatChangesFromAFileToADirectoryAndBackIsRemovedAndAdded)
{
    Watch();
    EXPECT_EQ(EventsOf(": > \"$COLLECTION\"/radio"), Events{"added radio"});
    EXPECT_EQ(EventsBetweenTwoScans([this] {
                  fs::remove(In("radio"));
                  MakeBundle(In("radio"));
              }),
              (Events{"removed radio", "added radio"}));
    EXPECT_EQ(EventsBetweenTwoScans("rm -r \"$COLLECTION\"/radio && echo > \"$COLLECTION\"/radio"),
              (Events{"removed radio", "added radio"}));
}

TEST_F(AnEntry, ThatIsADanglingLinkCountsAsAFileUntilItLeadsToADirectory)
{
    Watch();
    EXPECT_EQ(EventsOf("ln -s \"$ASIDE\"/radio \"$COLLECTION\"/radio"), Events{"added radio"});
    EXPECT_EQ(EventsBetweenTwoScans([this] { MakeBundle(Aside("radio")); }), (Events{"removed radio", "added radio"}));
    EXPECT_EQ(EventsOf("echo '; new' >> \"$ASIDE\"/radio/BundleManifest.ini"), Events{"modified radio"});
    EXPECT_EQ(EventsBetweenTwoScans("mv \"$ASIDE\"/radio \"$ASIDE\"/gone"), (Events{"removed radio", "added radio"}));
    EXPECT_EQ(EventsOf("rm \"$COLLECTION\"/radio"), Events{"removed radio"});
}

TEST_F(AnEntry, ThatIsALinkToItselfCountsAsAFile)
{
    Watch();
    EXPECT_EQ(EventsOf("ln -s loop \"$COLLECTION\"/loop"), Events{"added loop"});
    EXPECT_EQ(EventsOf("rm \"$COLLECTION\"/loop"), Events{"removed loop"});
}

TEST_F(AnEntry, ThatIsALinkIsModifiedWhenItLeadsElsewhere)
{
    MakeBundle(Aside("one"));
    MakeBundle(Aside("two"));
    RunShell("ln -s \"$ASIDE\"/one \"$COLLECTION\"/radio");
    Watch();
    EXPECT_EQ(EventsOf("ln -s \"$ASIDE\"/two \"$COLLECTION\"/.new && mv -T \"$COLLECTION\"/.new \"$COLLECTION\"/radio")
                  .back(),
              "modified radio");
}

TEST_F(AnEntry, MayHaveAnyName)
{
    Watch();
    MakeBundle(Aside("new\nline %s \xff"));
    EXPECT_EQ(EventsOf([this] { fs::rename(Aside("new\nline %s \xff"), In("new\nline %s \xff")); }),
              Events{"added new\nline %s \xff"});
    MakeBundle(Aside(".hidden"));
    EXPECT_EQ(EventsOf([this] { fs::rename(Aside(".hidden"), In(".hidden")); }), Events{"added .hidden"});
    const std::string longest(255, 'n');
    MakeBundle(Aside(longest));
    EXPECT_EQ(EventsOf([&] { fs::rename(Aside(longest), In(longest)); }), Events{"added " + longest});
    EXPECT_EQ(EventsOf([&] { AppendFile(In(longest) + "/BundleManifest.ini", "\n"); }), Events{"modified " + longest});
}

// A scan during "rm -r" may find half a directory. Only the end of the removal is raised.
TEST_F(AnEntry, ThatIsRemovedBitByBitIsRemovedOnce)
{
    MakeBundle(In("radio"));
    Watch();
    recorder.SetHandler([this](const std::string& event) {
        if (event == "added tick-0") {
            fs::remove_all(In("radio") + "/bin");
            WriteFile(In("tick-1"), "");
        } else if (event == "added tick-1") {
            fs::remove(In("radio") + "/BundleManifest.ini");
            WriteFile(In("tick-2"), "");
        } else if (event == "added tick-2") {
            fs::remove_all(In("radio"));
        }
    });
    EXPECT_EQ(EventsOf([this] {
                  WriteFile(In("tick-0"), "");
                  EXPECT_TRUE(recorder.WaitFor("removed radio"));
              }),
              (Events{"added tick-0", "added tick-1", "added tick-2", "removed radio"}));
}
