// The resources of a watcher: one thread and one descriptor, and none that a child inherits.

#include "support/process_info.h"
#include "unit/watcher/watched_collection.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>

using SystemServer::BundleDirWatcher;

namespace {

namespace fs = std::filesystem;

class WhatAWatcherHolds : public WatchingACollection {};

/// The target of each open descriptor, without the one that reads the list.
std::map<int, std::string> Descriptors()
{
    std::map<int, std::string> descriptors;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        const fs::path target = fs::read_symlink(entry.path(), error);
        if (!error && target.string().find("/fd") == std::string::npos) {
            descriptors[std::stoi(entry.path().filename())] = target.string();
        }
    }
    return descriptors;
}

/// The number of threads without a watcher's. Waits for one that is just ending.
std::size_t OtherThreads()
{
    Eventually(std::chrono::seconds(30), [] {
        const std::vector<std::string> names = ProcessOf::ThreadNames(::getpid());
        return std::count(names.begin(), names.end(), "bundle_watcher") == 0;
    });
    return ProcessOf::ThreadNames(::getpid()).size();
}

/// Whether there are so many threads. The kernel still shows one for a moment after its end.
::testing::AssertionResult ThereAreThreads(std::size_t count)
{
    if (Eventually(std::chrono::seconds(30), [count] { return ProcessOf::ThreadNames(::getpid()).size() == count; })) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << ProcessOf::ThreadNames(::getpid()).size() << " in place of " << count;
}

} // namespace

TEST_F(WhatAWatcherHolds, IsOneThread)
{
    Watch(); // a sanitizer adds a thread of its own with the first
    watcher.reset();
    const std::size_t before = OtherThreads();
    Watch();
    recorder.PassScans(1);
    const std::vector<std::string> names = ProcessOf::ThreadNames(::getpid());
    EXPECT_TRUE(ThereAreThreads(before + 1));
    EXPECT_EQ(std::count(names.begin(), names.end(), "bundle_watcher"), 1);
    watcher.reset();
    EXPECT_TRUE(ThereAreThreads(before));
}

TEST_F(WhatAWatcherHolds, IsNoDescriptorThatAChildInherits)
{
    const auto before = Descriptors();
    Watch();
    BetweenTwoScans([&before] {
        for (const auto& [descriptor, target] : Descriptors()) {
            if (before.count(descriptor) == 0) {
                EXPECT_NE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0) << target;
            }
        }
    });
}

TEST_F(WhatAWatcherHolds, IsNoUnreadQueueOfKernelEvents)
{
    Watch();
    EXPECT_TRUE(Eventually(std::chrono::seconds(10), [] { // the watcher's own thread closes it
        const auto descriptors = Descriptors();
        return std::none_of(descriptors.begin(), descriptors.end(),
                            [](const auto& entry) { return entry.second.find("inotify") != std::string::npos; });
    }));
}

TEST_F(WhatAWatcherHolds, LeavesOtherInotifyDescriptorsOpen)
{
    const int descriptor = ::inotify_init1(0);
    ASSERT_GE(descriptor, 0);
    Watch();
    watcher.reset();
    EXPECT_EQ(Descriptors()[descriptor], "anon_inode:inotify");
    EXPECT_EQ(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
    ::close(descriptor);
}

TEST_F(WhatAWatcherHolds, IsReleasedWithIt)
{
    Watch();
    watcher.reset();
    const auto before = Descriptors();
    const std::size_t threads = OtherThreads();
    for (int i = 0; i < 20; ++i) {
        const BundleDirWatcher one(collection.Path().string(), INTERVAL);
        const BundleDirWatcher other(collection.Path().string(), INTERVAL);
    }
    EXPECT_EQ(Descriptors(), before);
    EXPECT_TRUE(ThereAreThreads(threads));
}

TEST_F(WhatAWatcherHolds, IsReleasedWhenItCannotBeMade)
{
    const auto before = Descriptors();
    for (int i = 0; i < 20; ++i) {
        EXPECT_ANY_THROW(BundleDirWatcher(In("missing")));
    }
    EXPECT_EQ(Descriptors(), before);
}
