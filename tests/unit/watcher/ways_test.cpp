// Every way in which a bundle comes, changes and goes, and what is raised for it.

#include "unit/watcher/watched_collection.h"
#include "unit/watcher/ways.h"

#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <filesystem>

namespace {

namespace fs = std::filesystem;

std::string NameOf(const ::testing::TestParamInfo<Way>& info)
{
    return info.param.name;
}

class ByAWay : public WatchingACollection, public ::testing::WithParamInterface<Way> {
protected:
    void SetUp() override
    {
        if (!HasTool(GetParam())) {
            GTEST_SKIP() << "there is no " << GetParam().tool << " here";
        }
    }
};

class ADirectoryThatIsAdded : public ByAWay {};
class ADirectoryThatIsRemoved : public ByAWay {};
class ABundleThatIsChanged : public ByAWay {};
class ABundleThatIsWrittenTo : public ByAWay {};
class ManyDirectories : public WatchingACollection {};
class ASlowCopy : public WatchingACollection {};
class AnEntry : public WatchingACollection {};

/// Returns when the kernel's clock, by which changes are dated, is past the last change of path: also when somebody has
/// set it back meanwhile.
void AwaitTickAfter(const std::string& path)
{
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_TRUE(Eventually(std::chrono::seconds(5), [&status] {
        timespec now{};
        ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
        return std::make_pair(now.tv_sec, now.tv_nsec) > std::make_pair(status.st_ctim.tv_sec, status.st_ctim.tv_nsec);
    }));
}

} // namespace

TEST_P(ADirectoryThatIsAdded, RaisesOneAdditionEachTime)
{
    MakeBundle(Aside("radio"));
    RunShell("cd \"$ASIDE\" && tar -cf radio.tar radio && cp -r radio copy");
    Watch(UNHURRIED);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(EventsOf(GetParam().command), Events{"added radio"});
        EXPECT_EQ(EventsBetweenTwoScans("rm -rf \"$COLLECTION\"/radio"), Events{"removed radio"});
        RunShell("cd \"$ASIDE\" && rm -rf radio && cp -r copy radio");
    }
}

INSTANTIATE_TEST_SUITE_P(By, ADirectoryThatIsAdded, ::testing::ValuesIn(WaysOfComing()), NameOf);

TEST_P(ADirectoryThatIsRemoved, IsRemovedOnce)
{
    MakeBundle(In("radio"));
    MakeBundle(In("tuner"));
    Watch();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(EventsBetweenTwoScans(GetParam().command), Events{"removed radio"});
        MakeBundle(Aside("next"));
        EXPECT_EQ(EventsOf("mv \"$ASIDE\"/next \"$COLLECTION\"/radio"), Events{"added radio"});
    }
}

INSTANTIATE_TEST_SUITE_P(By, ADirectoryThatIsRemoved, ::testing::ValuesIn(WaysOfGoing()), NameOf);

TEST_P(ABundleThatIsChanged, IsModifiedOnce)
{
    MakeBundle(In("radio"));
    MakeBundle(In("tuner"));
    MakeBundle(Aside("radio"));
    RunShell("echo '; new' >> \"$ASIDE\"/radio/BundleManifest.ini");
    Watch();
    EXPECT_EQ(EventsBetweenTwoScans(GetParam().command), Events{"modified radio"});
}

// Some ways take several steps, between which a scan may come: then each scan raises what it finds.
TEST_P(ABundleThatIsChanged, IsModifiedAtLeastOnceAtAnyTimeBetweenScans)
{
    MakeBundle(In("radio"));
    MakeBundle(In("tuner"));
    MakeBundle(Aside("radio"));
    RunShell("echo '; new' >> \"$ASIDE\"/radio/BundleManifest.ini");
    Watch();
    const Events events = EventsOf(GetParam().command);
    EXPECT_FALSE(events.empty());
    for (const std::string& event : events) {
        EXPECT_TRUE(event == "modified radio" || event == "removed radio" || event == "added radio") << event;
    }
}

INSTANTIATE_TEST_SUITE_P(By, ABundleThatIsChanged, ::testing::ValuesIn(WaysOfChanging()), NameOf);

TEST_P(ABundleThatIsWrittenTo, RaisesNothing)
{
    MakeBundle(In("radio"));
    Watch();
    EXPECT_EQ(EventsOf(GetParam().command), Events{});
}

INSTANTIATE_TEST_SUITE_P(By, ABundleThatIsWrittenTo, ::testing::ValuesIn(WaysOfWriting()), NameOf);

// An archive or a mirror puts back the time of a directory's last change. The inode's own time cannot be put back.
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

TEST_F(ManyDirectories, AreAddedModifiedAndRemovedWithoutAMissedOrDoubledEvent)
{
    Watch();
    const auto expected = [](const std::string& what) {
        Events events;
        for (int i = 100; i < 200; ++i) {
            events.push_back(what + " b" + std::to_string(i));
        }
        return events;
    };
    const auto sorted = [](Events events) {
        std::sort(events.begin(), events.end());
        return events;
    };
    const auto forAll = [](const std::function<void(const std::string&)>& action) {
        for (int i = 100; i < 200; ++i) {
            action("b" + std::to_string(i));
        }
    };
    for (int round = 0; round < 3; ++round) {
        forAll([this](const std::string& name) { MakeBundle(Aside(name)); });
        // Not between two scans: some come before one and some after.
        EXPECT_EQ(
            sorted(EventsOf([&] { forAll([this](const std::string& name) { fs::rename(Aside(name), In(name)); }); })),
            expected("added"));
        EXPECT_EQ(sorted(EventsOf(
                      [&] { forAll([this](const std::string& name) { WriteText(In(name) + "/bin/new", ""); }); })),
                  expected("modified"));
        EXPECT_EQ(sorted(EventsBetweenTwoScans(
                      [&] { forAll([this](const std::string& name) { fs::remove_all(In(name)); }); })),
                  expected("removed"));
    }
    Watch(UNHURRIED);
    EXPECT_EQ(sorted(EventsOf([&] { forAll([this](const std::string& name) { MakeBundle(In(name)); }); })),
              expected("added"));
}

TEST_F(ManyDirectories, AreAddedInTheOrderOfTheirArrival)
{
    Watch();
    Events expected;
    EXPECT_EQ(EventsBetweenTwoScans([&] {
                  for (const char* const name : {"tuner", "base", "radio", "alarm"}) {
                      MakeBundle(Aside(name));
                      AwaitTickAfter(Aside(name) + "/BundleManifest.ini"); // or the move would bear its time
                      fs::rename(Aside(name), In(name));
                      AwaitTickAfter(In(name));
                      expected.push_back(std::string("added ") + name);
                  }
              }),
              expected);
}

TEST_F(ManyDirectories, AreModifiedInTheOrderInWhichTheyWereChanged)
{
    for (const char* const name : {"alarm", "base", "radio", "tuner"}) {
        MakeBundle(In(name));
    }
    Watch();
    Events expected;
    EXPECT_EQ(EventsBetweenTwoScans([&] {
                  for (const char* const name : {"tuner", "base", "radio", "alarm"}) {
                      Append(In(name) + "/BundleManifest.ini", "\n");
                      AwaitTickAfter(In(name) + "/BundleManifest.ini");
                      expected.push_back(std::string("modified ") + name);
                  }
              }),
              expected);
}

// The chunks are written by the handlers of plain files that come, one a scan: each scan finds more than the last.
TEST_F(ASlowCopy, IsAddedOnceWhenItIsComplete)
{
    constexpr int chunks = 8;
    Watch();
    fs::create_directories(In("radio") + "/bin");
    WriteText(In("radio") + "/BundleManifest.ini", "[global]\n");
    int written = 0;
    int writtenWhenAdded = 0;
    recorder.SetHandler([&](const std::string& event) {
        if (event == "added radio") {
            writtenWhenAdded = written;
        } else if (event.rfind("added tick-", 0) == 0 && written < chunks) {
            Append(In("radio") + "/bin/tunerd", std::string(1000, 'x'));
            ++written;
            WriteText(In("tick-" + std::to_string(written)), "");
        }
    });
    WriteText(In("tick-0"), "");
    EXPECT_TRUE(recorder.WaitFor("added radio"));
    recorder.PassScans(4);
    Events events = recorder.Noted();
    events.erase(std::remove_if(events.begin(), events.end(),
                                [](const std::string& event) { return event.rfind("added tick-", 0) == 0; }),
                 events.end());
    watcher.reset();
    EXPECT_EQ(events, Events{"added radio"});
    EXPECT_EQ(writtenWhenAdded, chunks);
}

// A mirror sets the owner, the mode and the times of a directory before it fills it, and perhaps again while it does.
TEST_F(ASlowCopy, IsNotTakenForARenameWhenItsModeWasSetFirst)
{
    Watch();
    recorder.SetHandler([this](const std::string& event) {
        if (event == "added first-scan") {
            WriteText(In("second-scan"), "");
        }
    });
    EXPECT_EQ(EventsBetweenTwoScans([this] {
                  fs::create_directory(In("radio"));
                  AwaitTickAfter(In("radio"));
                  RunShell("chmod 700 \"$COLLECTION\"/radio");
                  WriteText(In("first-scan"), "");
              }),
              (Events{"added first-scan", "added second-scan", "added radio"}));
}

TEST_F(ASlowCopy, IsNotTakenForARenameWhenItsModeWasSetMeanwhile)
{
    Watch();
    recorder.SetHandler([this](const std::string& event) {
        if (event == "added first-scan") {
            Append(In("radio/BundleManifest.ini"), "\n");
            AwaitTickAfter(In("radio/BundleManifest.ini"));
            RunShell("chmod 700 \"$COLLECTION\"/radio");
            WriteText(In("second-scan"), "");
        } else if (event == "added second-scan") {
            WriteText(In("third-scan"), "");
        }
    });
    EXPECT_EQ(EventsBetweenTwoScans([this] {
                  fs::create_directory(In("radio"));
                  WriteText(In("radio/BundleManifest.ini"), "[global]\n");
                  WriteText(In("first-scan"), "");
              }),
              (Events{"added first-scan", "added second-scan", "added third-scan", "added radio"}));
}

TEST_F(ASlowCopy, ThatIsAbandonedRaisesNothing)
{
    Watch();
    int written = 0;
    recorder.SetHandler([&](const std::string& event) {
        if (event.rfind("added tick-", 0) != 0) {
            return;
        }
        ++written;
        if (written < 4) {
            Append(In("radio") + "/half", "x");
            WriteText(In("tick-" + std::to_string(written)), "");
        } else {
            fs::remove_all(In("radio"));
        }
    });
    fs::create_directory(In("radio"));
    WriteText(In("tick-0"), "");
    EXPECT_TRUE(recorder.WaitFor("added tick-3"));
    recorder.PassScans(4);
    watcher.reset();
    for (const std::string& event : recorder.Noted()) {
        EXPECT_EQ(event.rfind("added tick-", 0), 0U) << event;
    }
}

TEST_F(AnEntry, IsAddedByTheFirstScanThatSeesItWhenItWasMovedIn)
{
    AwaitTickAfter(MakeBundle(Aside("radio")) + "/BundleManifest.ini");
    Watch();
    recorder.SetHandler([this](const std::string& event) {
        if (event == "added first-scan") {
            WriteText(In("second-scan"), "");
        }
    });
    EXPECT_EQ(EventsBetweenTwoScans([this] {
                  fs::rename(Aside("radio"), In("radio"));
                  WriteText(In("first-scan"), "");
              }),
              (Events{"added first-scan", "added radio", "added second-scan"}));
}

TEST_F(AnEntry, ThatIsAPlainFileIsAddedModifiedAndRemoved)
{
    WriteText(In("old"), "");
    Watch();
    EXPECT_EQ(EventsOf("echo > \"$COLLECTION\"/note"), Events{"added note"});
    for (const char* const command :
         {"echo more >> \"$COLLECTION\"/note", "touch \"$COLLECTION\"/note", "chmod 600 \"$COLLECTION\"/note",
          "echo > \"$ASIDE\"/other && mv \"$ASIDE\"/other \"$COLLECTION\"/note"}) {
        EXPECT_EQ(EventsOf(command), Events{"modified note"}) << command;
    }
    EXPECT_EQ(EventsOf("rm \"$COLLECTION\"/note"), Events{"removed note"});
    EXPECT_EQ(EventsOf("echo >> \"$COLLECTION\"/old"), Events{"modified old"});
}

// The server asks for that when it finds no bundle, as it does for each plain file.
TEST_F(AnEntry, ThatIsAPlainFileIsNotOfferedAgain)
{
    Watch();
    recorder.SetHandler([this](const std::string& event) {
        if (event == "modified note") {
            watcher->OfferAgain(In("note"));
        }
    });
    EXPECT_EQ(EventsOf("echo > \"$COLLECTION\"/note"), Events{"added note"});
    EXPECT_EQ(EventsOf("echo >> \"$COLLECTION\"/note"), Events{"modified note"});
}

TEST_F(AnEntry, ThatWasThereBeforeTheWatcherRaisesNothing)
{
    MakeBundle(In("radio"));
    WriteText(In("note"), "");
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
    EXPECT_EQ(EventsOf("echo > \"$COLLECTION\"/radio"), Events{"added radio"});
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
    EXPECT_EQ(EventsOf([&] { Append(In(longest) + "/BundleManifest.ini", "\n"); }), Events{"modified " + longest});
}

// While "rm -r" is at work a scan may find half a directory: its end alone is raised.
TEST_F(AnEntry, ThatIsRemovedBitByBitIsRemovedOnce)
{
    MakeBundle(In("radio"));
    Watch();
    recorder.SetHandler([this](const std::string& event) {
        if (event == "added tick-0") {
            fs::remove_all(In("radio") + "/bin");
            WriteText(In("tick-1"), "");
        } else if (event == "added tick-1") {
            fs::remove(In("radio") + "/BundleManifest.ini");
            WriteText(In("tick-2"), "");
        } else if (event == "added tick-2") {
            fs::remove_all(In("radio"));
        }
    });
    EXPECT_EQ(EventsOf([this] {
                  WriteText(In("tick-0"), "");
                  EXPECT_TRUE(recorder.WaitFor("removed radio"));
              }),
              (Events{"added tick-0", "added tick-1", "added tick-2", "removed radio"}));
}
