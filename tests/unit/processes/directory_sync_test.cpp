#include "directory_sync.h"

#include "support/collection_builder.h"
#include "support/eventually.h"
#include "support/fault.h"
#include "support/log_capture.h"
#include "support/own_process.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using SystemServer::DirectorySync;

namespace {

constexpr auto PATIENCE = 30s;

class SyncingADirectory : public ::testing::Test {
protected:
    /// Whether the thread has ended and left nothing behind.
    ::testing::AssertionResult NothingIsLeft() const
    {
        if (Eventually(PATIENCE, [this] { return OwnProcess::Threads() == threads; }) &&
            OwnProcess::Descriptors() == descriptors) {
            return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure() << OwnProcess::Threads() - threads << " threads, "
                                             << OwnProcess::Descriptors() - descriptors << " descriptors";
    }

    TemporaryDirectory directory;
    DirectorySync sync{directory.Path().string()};
    LogCapture log;
    const int threads = [] {
        // A sanitizer adds a thread of its own to the first one.
        std::thread([] {}).join();
        return OwnProcess::Threads();
    }();
    const int descriptors = OwnProcess::Descriptors();
};

/// Every fsync waits while this lives.
class AFileSystemThatHangs : public SyncingADirectory {
protected:
    ~AFileSystemThatHangs() override { hangs = false; }

    std::atomic<bool> hangs{true};
    std::atomic<int> waiting{0};
    const BeforeEach hanging{Call::FSYNC, [this](int /*fd*/) {
                                 ++waiting;
                                 Eventually(PATIENCE, [this] { return !hangs; });
                             }};
};

} // namespace

TEST_F(SyncingADirectory, WritesItToTheDiskBeforeItReturns)
{
    std::string synced;
    const BeforeEach look(Call::FSYNC, [&synced](int fd) {
        synced = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)).string();
    });
    const CallCounter calls(Call::FSYNC);
    sync.Run(PATIENCE);
    EXPECT_EQ(synced, directory.Path().string());
    EXPECT_EQ(calls.Count(), 1);
    EXPECT_TRUE(NothingIsLeft());
    sync.Run(PATIENCE);
    EXPECT_EQ(calls.Count(), 2);
    EXPECT_TRUE(NothingIsLeft());
    EXPECT_TRUE(log.Messages().empty());
}

TEST_F(AFileSystemThatHangs, IsAwaitedNoLongerThanAsked)
{
    const auto start = Clock::now();
    sync.Run(100ms);
    EXPECT_GE(Clock::now() - start, 100ms);
    EXPECT_LT(Clock::now() - start, PATIENCE / 2);
    EXPECT_TRUE(log.HasInfo("bundle collection dir[" + directory.Path().string() + "] is not synced yet."));
}

TEST_F(AFileSystemThatHangs, CostsOneThreadAndOneDescriptorAndOneMoreSyncForAllLaterRequests)
{
    const CallCounter calls(Call::FSYNC);
    for (int i = 0; i < 20; ++i) {
        sync.Run(1ms);
    }
    ASSERT_TRUE(Eventually(PATIENCE, [this] { return waiting == 1; }));
    EXPECT_EQ(OwnProcess::Threads(), threads + 1);
    EXPECT_EQ(OwnProcess::Descriptors(), descriptors + 1);
    hangs = false;
    EXPECT_TRUE(NothingIsLeft());
    EXPECT_EQ(calls.Count(), 2);
    sync.Run(PATIENCE);
    EXPECT_EQ(calls.Count(), 3);
}

TEST_F(AFileSystemThatHangs, MayOutliveTheCaller)
{
    {
        DirectorySync other(directory.Path().string());
        other.Run(1ms);
    }
    ASSERT_TRUE(Eventually(PATIENCE, [this] { return waiting == 1; }));
    hangs = false;
    EXPECT_TRUE(NothingIsLeft());
}

TEST_F(SyncingADirectory, LogsAFailure)
{
    const std::string text = "bundle collection dir[" + directory.Path().string() + "] can not be synced: ";
    {
        const Fault fault(Call::FSYNC, EIO);
        sync.Run(PATIENCE);
    }
    EXPECT_TRUE(log.HasError(text + "Input/output error."));
    log.Restart();
    {
        const Fault fault(Call::OPEN, EMFILE);
        sync.Run(PATIENCE);
    }
    EXPECT_TRUE(log.HasError(text + "Too many open files."));
    log.Restart();
    {
        const Fault fault(Call::START_THREAD, EAGAIN);
        sync.Run(PATIENCE);
        EXPECT_TRUE(fault.HasStruck());
    }
    EXPECT_TRUE(log.HasError(text + "Resource temporarily unavailable."));
    EXPECT_TRUE(NothingIsLeft());
    log.Restart();
    sync.Run(PATIENCE);
    EXPECT_TRUE(log.Messages().empty()) << "the next sync works";
}

TEST_F(SyncingADirectory, WritesNothingForAFileSystemThatNeedsNoSync)
{
    const Fault fault(Call::FSYNC, EINVAL);
    sync.Run(PATIENCE);
    EXPECT_TRUE(fault.HasStruck());
    EXPECT_TRUE(log.Messages().empty());
}
