// The collection directory itself: its name, its removal and return, and a very large one.

#include "unit/watcher/watched_collection.h"

#include <Poco/Delegate.h>
#include <Poco/DirectoryIterator.h>
#include <Poco/Exception.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <future>

using SystemServer::BundleDirWatcher;

namespace {

namespace fs = std::filesystem;

constexpr const char CANNOT_BE_READ[] = "] can not be read: ";
constexpr const char CAN_BE_READ_AGAIN[] = "] can be read again.";

/// The collection is a directory below the test's own, so that it can be moved away.
class ACollectionThatGoesAway : public WatchingACollection {
public:
    ACollectionThatGoesAway() : place(collection / "bundles"), placed(place)
    {
        fs::create_directory(place);
        ::setenv("PLACE", place.c_str(), 1);
        MakeBundle(place + "/radio");
        MakeBundle(place + "/tuner");
        watcher = std::make_unique<BundleDirWatcher>(place, INTERVAL);
        placed.Subscribe(*watcher);
    }

    void AwaitUnreadable(const char* why) const
    {
        EXPECT_TRUE(Eventually(PATIENCE, [this] { return log.CountPart(CANNOT_BE_READ) > 0; }));
        EXPECT_TRUE(log.HasError("bundle collection dir[" + place + "/] can not be read: " + why +
                                 ". Its bundles stay as they are until it is back."));
    }

    /// The events since the collection is back. Checks that its loss and its return are logged once each.
    Events EventsOfReturn()
    {
        placed.PassScans(4);
        EXPECT_EQ(log.CountPart(CANNOT_BE_READ), 1);
        EXPECT_EQ(log.CountPart(CAN_BE_READ_AGAIN), 1);
        return placed.Noted();
    }

    /// Waits until several scans have found the collection missing. A second watcher counts them.
    void PassScansElsewhere() const
    {
        const TemporaryDirectory elsewhere;
        Recorder counter(elsewhere.Path().string());
        BundleDirWatcher other(elsewhere.Path().string(), INTERVAL);
        counter.Subscribe(other);
        counter.PassScans(5);
    }

    const std::string place;
    Recorder placed;
};

class AnOrdinaryUser {
public:
    AnOrdinaryUser()
    {
        if (m_isRoot) {
            EXPECT_EQ(::seteuid(NOBODY), 0);
        }
    }
    ~AnOrdinaryUser()
    {
        if (m_isRoot) {
            EXPECT_EQ(::seteuid(0), 0);
        }
    }
    AnOrdinaryUser(const AnOrdinaryUser&) = delete;
    AnOrdinaryUser& operator=(const AnOrdinaryUser&) = delete;

    static constexpr uid_t NOBODY = 65534;

private:
    const bool m_isRoot = ::geteuid() == 0;
};

class AChangeThatCannotBeSeen : public WatchingACollection {
public:
    /// Gives the files that root has made to an ordinary user.
    static void GiveAway() { RunShell("[ $(id -u) != 0 ] || chown -R 65534 \"$COLLECTION\" \"$ASIDE\""); }
};

class ALargeCollection : public WatchingACollection {};
class TheCollectionsPath : public WatchingACollection {};

} // namespace

TEST_F(ACollectionThatGoesAway, RaisesNothingWhenItReturnsUnchanged)
{
    fs::rename(place, Aside("away"));
    AwaitUnreadable("No such file or directory");
    PassScansElsewhere();
    fs::rename(Aside("away"), place);
    EXPECT_EQ(EventsOfReturn(), Events{});
}

TEST_F(ACollectionThatGoesAway, IsComparedWithItsFormerStateWhenItReturns)
{
    fs::rename(place, Aside("away"));
    AwaitUnreadable("No such file or directory");
    fs::remove_all(Aside("away") + "/radio");
    AppendFile(Aside("away") + "/tuner/BundleManifest.ini", "\n");
    MakeBundle(Aside("away") + "/alarm");
    fs::rename(Aside("away"), place);
    Events events = EventsOfReturn();
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.front(), "removed radio");
    std::sort(events.begin(), events.end());
    EXPECT_EQ(events, (Events{"added alarm", "modified tuner", "removed radio"}));
}

TEST_F(ACollectionThatGoesAway, IsFollowedAfterItHasBeenRemovedAndMadeAgain)
{
    placed.BetweenTwoScans([this] { fs::remove_all(place); });
    AwaitUnreadable("No such file or directory");
    fs::create_directory(place);
    EXPECT_EQ(EventsOfReturn(), (Events{"removed radio", "removed tuner"}));
    placed.Forget();
    fs::rename(MakeBundle(Aside("alarm")), place + "/alarm");
    placed.PassScans(4);
    EXPECT_EQ(placed.Noted(), Events{"added alarm"});
}

TEST_F(ACollectionThatGoesAway, IsFollowedThroughASymbolicLink)
{
    placed.BetweenTwoScans([this] {
        fs::rename(place, Aside("moved"));
        fs::create_directory_symlink(Aside("moved"), place);
    });
    placed.PassScans(4);
    EXPECT_EQ(placed.Noted(), Events{});
    fs::remove_all(Aside("moved") + "/radio/bin");
    placed.PassScans(4);
    EXPECT_EQ(placed.Noted(), Events{"modified radio"});
    EXPECT_EQ(log.CountPart(CANNOT_BE_READ), 0);
}

TEST_F(ACollectionThatGoesAway, IsAwaitedWhileAFileStandsInItsPlace)
{
    placed.BetweenTwoScans([this] {
        fs::rename(place, Aside("away"));
        WriteFile(place, "");
    });
    AwaitUnreadable("Not a directory");
    PassScansElsewhere();
    fs::remove(place);
    fs::rename(Aside("away"), place);
    EXPECT_EQ(EventsOfReturn(), Events{});
}

TEST_F(ACollectionThatGoesAway, IsAwaitedWhileItMayNotBeRead)
{
    // Root can read every file.
    fs::permissions(collection.Path(), fs::perms::all);
    ASSERT_EQ(::chown(place.c_str(), AnOrdinaryUser::NOBODY, static_cast<gid_t>(-1)), ::geteuid() == 0 ? 0 : -1);
    const AnOrdinaryUser user;
    fs::permissions(place, fs::perms::none);
    AwaitUnreadable("Permission denied");
    PassScansElsewhere();
    fs::permissions(place, fs::perms::owner_all);
    EXPECT_EQ(EventsOfReturn(), Events{});
}

// A directory that cannot be read may be unchanged, which is no reason to stop its bundle.
TEST_F(AChangeThatCannotBeSeen, LeavesADirectoryBehindALinkUnchanged)
{
    fs::create_directory(Aside("disk"));
    MakeBundle(Aside("disk/radio"));
    fs::create_directory_symlink(Aside("disk/radio"), In("radio"));
    GiveAway();
    Watch();
    const AnOrdinaryUser user;
    EXPECT_EQ(EventsOf([this] { fs::permissions(Aside("disk"), fs::perms::none); }), Events{});
    EXPECT_EQ(EventsOf([this] { fs::permissions(Aside("disk"), fs::perms::owner_all); }), Events{});
}

TEST_F(AChangeThatCannotBeSeen, LeavesAFolderBehindALinkUnchanged)
{
    MakeBundle(In("radio"));
    fs::create_directory(Aside("disk"));
    fs::rename(In("radio/bin"), Aside("disk/bin"));
    fs::create_directory_symlink(Aside("disk/bin"), In("radio/bin"));
    GiveAway();
    Watch();
    const AnOrdinaryUser user;
    EXPECT_EQ(EventsOf([this] { fs::permissions(Aside("disk"), fs::perms::none); }), Events{});
    EXPECT_EQ(EventsOf([this] { fs::permissions(Aside("disk"), fs::perms::owner_all); }), Events{});
}

TEST_F(ALargeCollection, IsFollowedWithTenThousandEntries)
{
    constexpr std::size_t files = 10'000;
    MakeBundle(In("radio"));
    Watch();
    BetweenTwoScans([this] {
        for (std::size_t i = 0; i < files; ++i) {
            WriteFile(In("note" + std::to_string(i)), "");
        }
    });
    EXPECT_TRUE(Eventually(PATIENCE, [this] { return recorder.Noted().size() >= files; }));
    EXPECT_EQ(EventsOf("echo '; new' >> \"$COLLECTION\"/radio/BundleManifest.ini"), Events{"modified radio"});
    MakeBundle(Aside("tuner"));
    EXPECT_EQ(EventsOf("mv \"$ASIDE\"/tuner \"$COLLECTION\"/"), Events{"added tuner"});
    recorder.Forget();
    RunShell("cd \"$COLLECTION\" && find . -name 'note*' -delete");
    EXPECT_TRUE(Eventually(PATIENCE, [this] { return recorder.Noted().size() >= files; }));
    recorder.PassScans(2);
    EXPECT_EQ(recorder.Noted().size(), files);
}

TEST_F(TheCollectionsPath, GivesThePathsOfAWalkOverIt)
{
    MakeBundle(Aside("radio"));
    const std::string path = collection.Path().string();
    const std::string relative = fs::relative(collection.Path(), fs::current_path()).string();
    for (const std::string& form : {path, path + "/", path + "//", "/." + path, relative, "./" + relative + "/"}) {
        struct Listener {
            void OnAdded(const Poco::DirectoryWatcher::DirectoryEvent& event) { promise.set_value(event.item.path()); }
            std::promise<std::string> promise;
        } listener;
        auto added = listener.promise.get_future();
        BundleDirWatcher following(form, INTERVAL);
        following.itemAdded += Poco::delegate(&listener, &Listener::OnAdded);
        fs::rename(Aside("radio"), In("radio"));
        ASSERT_EQ(added.wait_for(PATIENCE), std::future_status::ready) << form;
        EXPECT_EQ(added.get(), Poco::DirectoryIterator(form)->path());
        following.itemAdded -= Poco::delegate(&listener, &Listener::OnAdded);
        fs::rename(In("radio"), Aside("radio"));
    }
}

TEST_F(TheCollectionsPath, MustBeADirectoryWhenTheWatcherIsMade)
{
    EXPECT_THROW(BundleDirWatcher(In("missing")), Poco::FileNotFoundException);
    WriteFile(In("note"), "");
    EXPECT_THROW(BundleDirWatcher(In("note")), Poco::InvalidArgumentException);
}
