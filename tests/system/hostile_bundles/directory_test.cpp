// Directories of bundles, and of the collection, that are large, deep, misnamed, linked, mounted or missing.

#include "system/hostile_bundles/hostile_bundle.h"

#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class AHostileDirectory : public HostileBundles {};
class ALinkToABundle : public HostileBundles {};
class AMountedBundle : public HostileBundles {};
class AHostileCollection : public HostileBundles {};
class ADeepDirectory : public HostileBundles {};
class ALargeDirectory : public HostileBundles {};

const std::string LONG_NAME(255, 'n');

/// As deep as that, by steps: its path is longer than any system call takes.
void MakeDeep(const std::string& path, int depth)
{
    fs::create_directories(path);
    std::string commands = "cd '" + path + "' && for i in $(seq " + std::to_string(depth / 10) +
                           "); do mkdir -p d/d/d/d/d/d/d/d/d/d && cd -P d/d/d/d/d/d/d/d/d/d || exit 1; done";
    ASSERT_EQ(std::system(commands.c_str()), 0);
}

/// Sound bundles with odd entries beside their manifest, or an odd name of their directory.
void WriteOdd(const CollectionBuilder& target)
{
    target.Bundle("many").Write();
    fs::create_directories(target / "many/data");
    for (int i = 0; i < 10'000; ++i) {
        WriteFile(target / "many/data/" + std::to_string(i), "");
    }
    target.Bundle("deep").Write();
    MakeDeep(target / "deep/bin", 1000);
    target.Bundle("links").Write();
    fs::create_symlink("/", target / "links/root");
    fs::create_symlink(".", target / "links/itself");
    fs::create_symlink("loop", target / "links/loop");
    fs::create_symlink("nowhere", target / "links/bin");
    fs::create_symlink("/etc", target / "links/script");
    target.Bundle("devices").Write();
    EXPECT_EQ(::mkfifo((target / "devices/bin").c_str(), 0600), 0);
    // Some containers do not allow this. The test then continues without it.
    ::mknod((target / "devices/script").c_str(), S_IFCHR | 0600, makedev(1, 5));
    for (const auto& [directory, name] : std::vector<std::pair<std::string, std::string>>{{"line\nend", "newline"},
                                                                                          {"\xFF\xFE\x80", "invalid"},
                                                                                          {LONG_NAME, "longest"},
                                                                                          {"-rf", "option"},
                                                                                          {"~", "home"},
                                                                                          {"...", "points"},
                                                                                          {"*", "star"},
                                                                                          {"$(reboot)", "command"},
                                                                                          {" ", "blank"},
                                                                                          {"%s%n", "percent"}}) {
        target.BundleIn(directory).Name(name).Copy("itemd", TEST_SLEEPER).Write();
    }
}

const std::vector<std::string> ODD{"many",   "deep", "links",  "devices", "newline", "invalid", "longest",
                                   "option", "home", "points", "star",    "command", "blank",   "percent"};

/// Writes entries that are not bundles.
void WriteNone(const std::string& collection)
{
    fs::create_symlink(".", collection + "/itself");
    fs::create_symlink("loop", collection + "/loop");
    fs::create_symlink("nowhere", collection + "/dangling");
    fs::create_symlink("/dev", collection + "/devices-of-all");
    EXPECT_EQ(::mkfifo((collection + "/fifo").c_str(), 0600), 0);
    ::mknod((collection + "/zero").c_str(), S_IFCHR | 0600, makedev(1, 5));
}

} // namespace

TEST_F(AHostileDirectory, OfABundleAtTheStartHarmsNothing)
{
    WriteOdd(collection);
    WriteNone(collection.Path());
    fs::create_symlink("/", In("root"));
    ASSERT_TRUE(StartServing());
    for (const std::string& bundle : ODD) {
        EXPECT_TRUE(IsStarted(bundle));
    }
    EXPECT_EQ(daemon.CountInLog("failed to load bundles from "), 3) << "these links lead to no bundle";
    EXPECT_TRUE(IsUnharmed());
    for (const std::string& bundle : ODD) {
        EXPECT_EQ(RequestDelete(bundle), 200) << bundle;
    }
    EXPECT_TRUE(IsUnharmed());
    EXPECT_TRUE(Exists(In(".."))) << "only the bundle is removed";
    EXPECT_FALSE(Exists(In("-rf")));
    EXPECT_FALSE(Exists(In("deep")));
}

TEST_F(AHostileDirectory, OfABundleThatIsDroppedInHarmsNothing)
{
    WriteOdd(staging);
    // A scan often finds another listing than the one before, so the copy seems complete late, or never.
    staging.Bundle("restless").Write();
    fs::create_symlink("/proc/self/fd", staging / "restless/script");
    ASSERT_TRUE(StartServing());
    MoveAllIn();
    WriteNone(collection.Path());
    for (const std::string& bundle : ODD) {
        EXPECT_TRUE(IsStarted(bundle));
    }
    EXPECT_TRUE(IsUnharmed());
    for (const std::string& bundle : ODD) {
        EXPECT_EQ(RequestDelete(bundle), 200) << bundle;
    }
    EXPECT_TRUE(IsUnharmed());
}

// Each level of a walk takes a descriptor. A launch needs some at the same time.
TEST_F(ADeepDirectory, LeavesTheServerTheDescriptorsThatItNeeds)
{
    constexpr rlim_t limit = 256;
    daemon.SetPreparation([] {
        const rlimit few{limit, limit};
        ::setrlimit(RLIMIT_NOFILE, &few);
    });
    for (int i = 0; i < 4; ++i) {
        MakeDeep(staging / "deep/data" + std::to_string(i), 300);
    }
    collection.Bundle("radio").Item("radio.sh", Shell("exit 2")).Write();
    ASSERT_TRUE(StartServing());
    const std::size_t before = daemon.Descriptors().size();
    MoveIn("deep");
    std::size_t most = 0;
    int changes = 0;
    // It keeps changing, so each scan walks it again.
    EXPECT_FALSE(Eventually(4s, [&] {
        WriteFile(In("deep/data0/change"), std::string(static_cast<std::size_t>(++changes), 'x'));
        most = std::max(most, daemon.Descriptors().size());
        return !daemon.IsRunning();
    }));
    EXPECT_LE(most, before + 50);
    EXPECT_TRUE(daemon.WaitForLog("failed to load bundle from [" + In("deep") + "].")) << "it has no manifest";
    EXPECT_TRUE(IsUnharmed());
}

// The walk of a directory is bounded, because it may be a link to the root of all file systems.
TEST_F(ALargeDirectory, IsAddedWhileAFileLateInItsWalkKeepsChanging)
{
    staging.Bundle("large").Write();
    const std::string data = staging / "large/data";
    fs::create_directory(data);
    for (int i = 0; i < 70'000; ++i) {
        WriteFile(data + "/" + std::to_string(i), "");
    }
    std::string last;
    for (const fs::directory_entry& entry : fs::directory_iterator(data)) {
        last = entry.path().filename();
    }
    ASSERT_TRUE(StartServing());
    MoveIn("large");
    int changes = 0;
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [&] {
        WriteFile(In("large/data/") + last, std::string(static_cast<std::size_t>(++changes), 'x'));
        return daemon.CountInLog("bundle[large] state changing[Starting] -> [Active]") == 1;
    }));
    EXPECT_TRUE(IsUnharmed());
}

TEST_F(ALinkToABundle, IsDeletedWithoutItsTarget)
{
    staging.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    fs::create_directory_symlink(staging / "radio", In("radio"));
    ASSERT_TRUE(StartServing());
    EXPECT_EQ(RequestDelete("radio"), 200);
    EXPECT_FALSE(Exists(In("radio")));
    EXPECT_TRUE(Exists(staging / "radio/BundleManifest.ini"));
    // A link that is made again before the next scan leads to the same target. The scan would see no change.
    EXPECT_TRUE(daemon.WaitForLog("find bundle[" + In("radio") + "] fail."));
    fs::create_directory_symlink(staging / "radio", In("radio"));
    EXPECT_TRUE(IsStarted("radio", 2));
    fs::remove(In("radio"));
    fs::create_symlink("radio", In("radio")); // a loop takes its place
    EXPECT_TRUE(daemon.WaitForLog("normal stop radio.radiod...", 2));
    EXPECT_TRUE(IsUnharmed());
}

// The reply says that "rm" has run. Entries that it could not remove are still there and may be added again.
TEST_F(AMountedBundle, IsEmptiedByADeletionAndItsMountPointStays)
{
    fs::create_directory(In("radio"));
    ASSERT_EQ(::mount("tmpfs", In("radio").c_str(), "tmpfs", 0, "mode=0755"), 0);
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    ASSERT_TRUE(StartServing());
    EXPECT_EQ(RequestDelete("radio"), 200);
    EXPECT_TRUE(Exists(In("radio")));
    EXPECT_TRUE(fs::is_empty(In("radio")));
    collection.Bundle("radio").Item("radiod").Copy("radiod", TEST_SLEEPER).Write();
    EXPECT_TRUE(IsStarted("radio", 2));
    EXPECT_EQ(::umount2(In("radio").c_str(), MNT_DETACH), 0);
    EXPECT_TRUE(daemon.WaitForLog("dir item modified event happen.")) << "the empty mount point is another directory";
    EXPECT_TRUE(daemon.WaitForLog("update bundle[radio] failed."));
    fs::remove(In("radio"));
    EXPECT_TRUE(daemon.WaitForLog("normal stop radio.radiod...", 2));
    EXPECT_TRUE(IsUnharmed());
}

TEST_F(AHostileCollection, ThatIsReadOnlyIsServedAndKeepsDeletedBundles)
{
    ASSERT_EQ(::mount("tmpfs", collection.Path().c_str(), "tmpfs", 0, "mode=0755"), 0);
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Install(Shell(": > " + In("radio") + "/data")).Write();
    ASSERT_EQ(::mount(nullptr, collection.Path().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    ASSERT_TRUE(StartServing());
    EXPECT_NE(daemon.WaitForItem("radio", "radiod"), 0);
    EXPECT_EQ(RequestDelete("radio"), 200);
    EXPECT_TRUE(Exists(In("radio") + "/BundleManifest.ini")) << "and the next start loads it";
    EXPECT_TRUE(IsUnknown("radio"));
    ASSERT_EQ(::mount(nullptr, collection.Path().c_str(), nullptr, MS_REMOUNT, nullptr), 0);
    EXPECT_TRUE(IsUnharmed());
    ::umount2(collection.Path().c_str(), MNT_DETACH);
}

TEST_F(AHostileCollection, ThatCannotBeReadEndsTheStart)
{
    fs::create_symlink("loop", staging / "loop");
    fs::create_symlink("nowhere", staging / "dangling");
    fs::create_directory(staging / "secret");
    fs::permissions(staging / "secret", fs::perms::none);
    for (const char* const name : {"loop", "dangling", "secret"}) {
        DaemonRunner other(staging / name);
        ReadAsOthersDo(other);
        other.Start();
        const auto end = other.WaitForEnd();
        ASSERT_TRUE(end) << name;
        EXPECT_EQ(end->status, 70) << name;
        EXPECT_FALSE(other.Errors().empty()) << name;
    }
}

TEST_F(AHostileCollection, ThatGoesAwayAndIsReplacedLeavesTheBundlesRunningUntilItIsBack)
{
    const std::string path = collection.Path();
    const std::string aside = path + ".aside";
    ReadAsOthersDo(daemon);
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    ASSERT_TRUE(StartServing());
    const pid_t item = daemon.WaitForItem("radio", "radiod");
    int times = 0;
    const auto goesAndComesBack = [&](const std::function<void()>& replace, const std::string& reason) {
        fs::rename(path, aside);
        replace();
        EXPECT_TRUE(daemon.WaitForLog("can not be read: " + reason));
        EXPECT_EQ(RequestDelete("nobody"), 404);
        fs::remove(path);
        fs::rename(aside, path);
        EXPECT_TRUE(daemon.WaitForLog("can be read again.", ++times));
    };
    goesAndComesBack([] {}, "No such file or directory.");
    goesAndComesBack([&path] { WriteFile(path, ""); }, "Not a directory.");
    goesAndComesBack([&path] { fs::create_symlink(path, path); }, "Too many levels of symbolic links.");
    goesAndComesBack(
        [&path] {
            fs::create_directory(path);
            fs::permissions(path, fs::perms::none);
        },
        "Permission denied.");
    EXPECT_TRUE(ProcessOf::IsAlive(item));
    EXPECT_EQ(daemon.CountInLog("dir item"), 0) << "nothing has changed in it";
    EXPECT_TRUE(IsUnharmed());
}
