// Bundles on an overlay: a lower layer that is only read, and an upper layer for everything that is written.

#include "support/overlay.h"
#include "unit/watcher/watched_collection.h"
#include "unit/watcher/ways.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <tuple>

namespace {

const OverlayKind NUMBERS_NOT_KEPT{"NumbersNotKept", "tmpfs", ",xino=off"};
const OverlayKind NUMBERS_KEPT{"NumbersKept", "same"};
const OverlayKind NUMBERS_MAPPED{"NumbersMapped", "tmpfs", ",xino=on"};
const std::vector<OverlayKind> KINDS{
    NUMBERS_NOT_KEPT,
    NUMBERS_KEPT,
    {"RedirectionAndMetacopy", "tmpfs", ",xino=off,redirect_dir=on,metacopy=on"},
    NUMBERS_MAPPED,
    {"Ext4Below", "ext4", ",xino=off"},
    {"SquashfsBelow", "squashfs", ",xino=off"}, // a file that is copied up gets another number there, too
};

/// A bundle "radio" and another one on the lower layer, and another version of "radio" beside the collection.
class OnAnOverlay : public OverlayRoot, public WatchingACollection {
protected:
    explicit OnAnOverlay(const OverlayKind& kind) : OverlayRoot(kind) {}

    /// Skips the test and returns true when an overlay cannot be mounted.
    bool IsSkipped()
    {
        MakeBundle(In("radio"));
        MakeBundle(In("tuner"));
        MakeBundle(Aside("radio"));
        WriteFile(In("radio/state"), "1\n");
        WriteFile(In("radio/linked"), "1\n");
        RunShell("ln \"$COLLECTION\"/radio/linked \"$COLLECTION\"/radio/linked-too");
        RunShell("cd \"$ASIDE\" && echo '; new' >> radio/BundleManifest.ini && tar -cf radio.tar radio");
        const std::string missing = Mount();
        if (!missing.empty()) {
            [&] { GTEST_SKIP() << missing; }();
        }
        return !missing.empty();
    }

    /// All that does not count changes at once.
    void CopyUpAndDrop()
    {
        RunShell("cd \"$COLLECTION\"/radio && echo 2 >> data/stations && echo > log/today && : >> BundleManifest.ini");
        DropInodes();
    }

    /// The events after the kernel drops the inodes of the overlay.
    Events EventsOfDropping()
    {
        return EventsOf([this] { DropInodes(); });
    }
};

class ABundleOnAnOverlay : public OnAnOverlay, public ::testing::WithParamInterface<OverlayKind> {
protected:
    ABundleOnAnOverlay() : OnAnOverlay(GetParam()) {}
};

std::string NameOfKind(const ::testing::TestParamInfo<OverlayKind>& info)
{
    return info.param.name;
}

/// Also whether the overlay has been in use since it was mounted.
using Case = std::tuple<OverlayKind, Way, bool>;

class AChangeOnAnOverlay : public OnAnOverlay, public ::testing::WithParamInterface<Case> {
protected:
    AChangeOnAnOverlay() : OnAnOverlay(std::get<OverlayKind>(GetParam())) {}
    static Way TheWay() { return std::get<Way>(GetParam()); }
};
class AWriteOnAnOverlay : public AChangeOnAnOverlay {};
class AnAdditionOnAnOverlay : public AChangeOnAnOverlay {};
class ARemovalOnAnOverlay : public AChangeOnAnOverlay {};

std::string NameOfCase(const ::testing::TestParamInfo<Case>& info)
{
    const auto& [kind, way, isInUse] = info.param;
    static_cast<void>(isInUse);
    return std::string(way.name) + "With" + kind.name;
}

ino_t NumberOf(const std::string& path)
{
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_ino;
}

/// Ways that change nothing that the watcher compares.
std::vector<Way> WaysOfChangingUnseen()
{
    return {
        {"ReplacingTheManifestByItsCopy",
         "cd \"$COLLECTION\"/radio && cp -p BundleManifest.ini \"$ASIDE\"/copy && touch -r . \"$ASIDE\"/time && "
         "mv \"$ASIDE\"/copy BundleManifest.ini && touch -r \"$ASIDE\"/time ."},
        {"ReplacingAFileInBinByOneOfTheSameSizeAndTime",
         "cd \"$COLLECTION\"/radio/bin && touch -r . \"$ASIDE\"/time && printf %05000d 0 > \"$ASIDE\"/new && "
         "touch -r tunerd \"$ASIDE\"/new && mv \"$ASIDE\"/new tunerd && touch -r \"$ASIDE\"/time ."},
        {"ChangingAModeAndChangingItBack",
         "chmod 700 \"$COLLECTION\"/radio/bin && chmod 755 \"$COLLECTION\"/radio/bin"},
        {"ReplacingItByACopyWithOtherData",
         "cp -a \"$COLLECTION\"/radio \"$ASIDE\"/copy && echo 3 > \"$ASIDE\"/copy/data/stations && "
         "mv \"$COLLECTION\"/radio \"$ASIDE\"/old && mv \"$ASIDE\"/copy \"$COLLECTION\"/radio"},
        {"MovingItAwayAndBack", "mv \"$COLLECTION\"/radio \"$ASIDE\"/old && mv \"$ASIDE\"/old \"$COLLECTION\"/radio"},
    };
}

/// The general ways, and those that an overlay adds.
std::vector<Way> WaysOfChangingOnAnOverlay()
{
    std::vector<Way> ways;
    for (const Way& way : WaysOfChanging()) {
        if (way.name != std::string("MovingItAwayAndBack")) { // changes only the time of its inode
            ways.push_back(way);
        }
    }
    const std::vector<Way> others{
        {"ChangingTheModeOfTheDirectory", "chmod 700 \"$COLLECTION\"/radio"},
        {"ChangingTheModeOfBin", "chmod 700 \"$COLLECTION\"/radio/bin"},
        {"ChangingTheOwnerOfScript", "chown 1 \"$COLLECTION\"/radio/script"},
        {"ChangingTheModeOfTheManifest", "chmod 600 \"$COLLECTION\"/radio/BundleManifest.ini"},
        {"ChangingTheGroupOfTheManifest", "chgrp 1 \"$COLLECTION\"/radio/BundleManifest.ini"},
        {"LinkingTheManifest", "ln \"$COLLECTION\"/radio/BundleManifest.ini \"$ASIDE\"/backup"},
        {"PuttingBackTheTimesAfterAReplacementInBin",
         "cd \"$COLLECTION\"/radio/bin && touch -r . \"$ASIDE\"/time && printf %05000d 0 > .new && mv .new tunerd && "
         "touch -r \"$ASIDE\"/time ."},
        {"PuttingBackTheTimesAfterARenamingInBin",
         "cd \"$COLLECTION\"/radio/bin && touch -r . \"$ASIDE\"/time && mv tunerd scand && touch -r \"$ASIDE\"/time ."},
        {"ReplacingItByACopyWithAnotherFileInBin",
         "cp -a \"$COLLECTION\"/radio \"$ASIDE\"/copy && printf %05000d 0 > \"$ASIDE\"/copy/bin/tunerd && "
         "mv \"$COLLECTION\"/radio \"$ASIDE\"/old && mv \"$ASIDE\"/copy \"$COLLECTION\"/radio"},
    };
    ways.insert(ways.end(), others.begin(), others.end());
    return ways;
}

} // namespace

TEST_P(ABundleOnAnOverlay, IsUnchangedWhenTheKernelDropsItsInodes)
{
    if (IsSkipped()) {
        return;
    }
    Watch();
    for (int i = 0; i < 3; ++i) {
        const ino_t before = NumberOf(In("radio"));
        EXPECT_EQ(EventsOfDropping(), Events{});
        if (std::string(GetParam().options).find("xino=off") != std::string::npos) {
            EXPECT_NE(NumberOf(In("radio")), before) << "the kernel has dropped nothing";
        }
    }
}

TEST_P(ABundleOnAnOverlay, IsUnchangedWhenTheKernelDropsItsCaches)
{
    if (IsSkipped()) {
        return;
    }
    Watch();
    if (!DropAllInodes()) {
        GTEST_SKIP() << "this user may not drop the kernel's caches";
    }
    EXPECT_EQ(EventsOf([] {}), Events{});
}

TEST_P(ABundleOnAnOverlay, IsUnchangedWhenAWriteBelowItsDataCopiesItsDirectoryUp)
{
    if (IsSkipped()) {
        return;
    }
    Watch();
    EXPECT_EQ(EventsOf("echo > \"$COLLECTION\"/radio/data/new"), Events{});
    EXPECT_EQ(EventsOfDropping(), Events{});
    EXPECT_EQ(EventsOf("echo two >> \"$COLLECTION\"/radio/data/stations"), Events{});
    EXPECT_EQ(EventsOf("echo > \"$COLLECTION\"/radio/log/today"), Events{});
    EXPECT_EQ(EventsOfDropping(), Events{});
}

TEST_P(ABundleOnAnOverlay, IsUnchangedWhenItsManifestIsCopiedUpUnchanged)
{
    if (IsSkipped()) {
        return;
    }
    Watch();
    EXPECT_EQ(EventsOf(": >> \"$COLLECTION\"/radio/BundleManifest.ini"), Events{});
    EXPECT_EQ(EventsOfDropping(), Events{});
    EXPECT_EQ(EventsOf("echo '; new' >> \"$COLLECTION\"/radio/BundleManifest.ini"), Events{"modified radio"});
}

TEST_P(ABundleOnAnOverlay, IsUnchangedWhileAnItemWritesToAFileInItsDirectory)
{
    if (IsSkipped()) {
        return;
    }
    Watch();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(EventsOf("echo 2 >> \"$COLLECTION\"/radio/state; echo 2 >> \"$COLLECTION\"/radio/bin/tunerd"),
                  Events{});
        EXPECT_EQ(EventsOfDropping(), Events{});
    }
    EXPECT_EQ(EventsOf("echo > \"$ASIDE\"/new && mv \"$ASIDE\"/new \"$COLLECTION\"/radio/state"),
              Events{"modified radio"});
}

// The copy of one of its links has another inode number, size and time, as a replaced file has.
TEST_P(ABundleOnAnOverlay, IsModifiedOnceWhenAFileWithSeveralLinksIsOverwritten)
{
    if (IsSkipped()) {
        return;
    }
    Watch();
    EXPECT_EQ(EventsOf("echo 2 >> \"$COLLECTION\"/radio/linked"), Events{"modified radio"});
    EXPECT_EQ(EventsOf("echo 3 >> \"$COLLECTION\"/radio/linked"), Events{});
    EXPECT_EQ(EventsOfDropping(), Events{});
}

TEST_P(ABundleOnAnOverlay, IsModifiedOnceByEachChangeEvenIfItsInodesAreDropped)
{
    if (IsSkipped()) {
        return;
    }
    Watch();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(EventsBetweenTwoScans("echo '; more' >> \"$COLLECTION\"/radio/BundleManifest.ini"),
                  Events{"modified radio"});
        EXPECT_EQ(EventsOfDropping(), Events{});
    }
}

// As a script of the bundle does, while the kernel drops its inodes.
TEST_P(ABundleOnAnOverlay, HasItsChangesAcceptedWhenItsNumbersDiffer)
{
    if (IsSkipped()) {
        return;
    }
    Watch();
    recorder.SetHandler([this](const std::string& event) {
        if (event == "modified radio") {
            WriteFile(In("radio/bin/new"), "");
            DropInodes();
            watcher->AcceptChanges(In("radio"));
        }
    });
    EXPECT_EQ(EventsBetweenTwoScans("touch \"$COLLECTION\"/radio"), Events{"modified radio"});
    EXPECT_EQ(EventsOfDropping(), Events{});
    watcher.reset();
}

INSTANTIATE_TEST_SUITE_P(With, ABundleOnAnOverlay, ::testing::ValuesIn(KINDS), NameOfKind);

TEST_P(AChangeOnAnOverlay, IsSeenOnce)
{
    if (!HasTool(TheWay())) {
        GTEST_SKIP() << "there is no " << TheWay().tool << " here";
    }
    if (IsSkipped()) {
        return;
    }
    Watch();
    if (std::get<bool>(GetParam())) {
        EXPECT_EQ(EventsOf([this] { CopyUpAndDrop(); }), Events{});
    }
    EXPECT_EQ(EventsBetweenTwoScans(TheWay().command), Events{"modified radio"});
}

INSTANTIATE_TEST_SUITE_P(By, AChangeOnAnOverlay,
                         ::testing::Combine(::testing::Values(NUMBERS_NOT_KEPT, NUMBERS_KEPT),
                                            ::testing::ValuesIn(WaysOfChangingOnAnOverlay()), ::testing::Values(false)),
                         NameOfCase);
INSTANTIATE_TEST_SUITE_P(ToABundleInUseBy, AChangeOnAnOverlay,
                         ::testing::Combine(::testing::Values(NUMBERS_NOT_KEPT),
                                            ::testing::ValuesIn(WaysOfChangingOnAnOverlay()), ::testing::Values(true)),
                         NameOfCase);

TEST_P(AWriteOnAnOverlay, RaisesNothing)
{
    if (IsSkipped()) {
        return;
    }
    Watch();
    EXPECT_EQ(EventsBetweenTwoScans(TheWay().command), Events{});
    EXPECT_EQ(EventsOfDropping(), Events{});
}

INSTANTIATE_TEST_SUITE_P(By, AWriteOnAnOverlay,
                         ::testing::Combine(::testing::Values(NUMBERS_NOT_KEPT, NUMBERS_KEPT),
                                            ::testing::ValuesIn(WaysOfWriting()), ::testing::Values(false)),
                         NameOfCase);

// The manual says so. On other file systems each change is seen.
INSTANTIATE_TEST_SUITE_P(Unseen, AWriteOnAnOverlay,
                         ::testing::Combine(::testing::Values(NUMBERS_NOT_KEPT),
                                            ::testing::ValuesIn(WaysOfChangingUnseen()), ::testing::Values(false)),
                         NameOfCase);

TEST_P(AnAdditionOnAnOverlay, IsSeenOnce)
{
    if (!HasTool(TheWay())) {
        GTEST_SKIP() << "there is no " << TheWay().tool << " here";
    }
    if (IsSkipped()) {
        return;
    }
    RunShell("rm -r \"$COLLECTION\"/radio");
    Watch(UNHURRIED);
    EXPECT_EQ(EventsOf(TheWay().command), Events{"added radio"});
    EXPECT_EQ(EventsOfDropping(), Events{});
}

INSTANTIATE_TEST_SUITE_P(By, AnAdditionOnAnOverlay,
                         ::testing::Combine(::testing::Values(NUMBERS_NOT_KEPT), ::testing::ValuesIn(WaysOfComing()),
                                            ::testing::Values(false)),
                         NameOfCase);

TEST_P(ARemovalOnAnOverlay, IsSeenOnce)
{
    if (IsSkipped()) {
        return;
    }
    Watch();
    EXPECT_EQ(EventsBetweenTwoScans(TheWay().command), Events{"removed radio"});
    EXPECT_EQ(EventsOf("mv \"$ASIDE\"/radio \"$COLLECTION\"/"), Events{"added radio"});
}

INSTANTIATE_TEST_SUITE_P(By, ARemovalOnAnOverlay,
                         ::testing::Combine(::testing::Values(NUMBERS_NOT_KEPT, NUMBERS_KEPT),
                                            ::testing::ValuesIn(WaysOfGoing()), ::testing::Values(false)),
                         NameOfCase);

class ADirectoryOnAnOverlay : public OnAnOverlay, public ::testing::WithParamInterface<OverlayKind> {
protected:
    ADirectoryOnAnOverlay() : OnAnOverlay(GetParam()) {}
};

TEST_P(ADirectoryOnAnOverlay, IsDistinguishedFromItsCopyWhereNumbersAreKept)
{
    if (IsSkipped()) {
        return;
    }
    Watch();
    EXPECT_EQ(EventsOf([this] { CopyUpAndDrop(); }), Events{});
    EXPECT_EQ(EventsBetweenTwoScans("cp -a \"$COLLECTION\"/radio \"$ASIDE\"/copy && "
                                    "mv \"$COLLECTION\"/radio \"$ASIDE\"/old && "
                                    "mv \"$ASIDE\"/copy \"$COLLECTION\"/radio"),
              Events{"modified radio"});
}

INSTANTIATE_TEST_SUITE_P(With, ADirectoryOnAnOverlay, ::testing::Values(NUMBERS_KEPT, NUMBERS_MAPPED), NameOfKind);
