// The cost of scans while nothing changes.

#include "unit/watcher/allocations.h"
#include "unit/watcher/watched_collection.h"

#include <unistd.h>

#include <atomic>
#include <fstream>

namespace {

class WhileNothingHappens : public WatchingACollection {};

/// The number of times that this thread has waited.
long Waits(const std::string& threadStatus)
{
    std::ifstream file(threadStatus);
    for (std::string line; std::getline(file, line);) {
        const std::string field = "voluntary_ctxt_switches:";
        if (line.rfind(field, 0) == 0) {
            return std::stol(line.substr(field.size()));
        }
    }
    return -1;
}

} // namespace

TEST_F(WhileNothingHappens, AScanAllocatesNothingForItsBundles)
{
    constexpr int bundles = 200;
    for (int i = 0; i < bundles; ++i) {
        MakeBundle(In("a bundle with a rather long name " + std::to_string(i)));
    }
    Watch(std::chrono::milliseconds(1));
    recorder.PassScans(3);
    const long before = Allocations();
    // Hundreds of scans, or at least a few on a very busy machine.
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
    Eventually(PATIENCE, [&] { return std::chrono::steady_clock::now() >= end; });
    const long allocations = Allocations() - before;
    EXPECT_EQ(EventsOf("touch \"$COLLECTION\"/*' 199'"), Events{"modified a bundle with a rather long name 199"});
    EXPECT_LT(allocations, bundles);
}

TEST_F(WhileNothingHappens, ItWakesUpOnceAnInterval)
{
    for (int i = 0; i < 20; ++i) {
        MakeBundle(In("b" + std::to_string(i)));
    }
    std::atomic<long> thread{0};
    recorder.SetHandler([&thread](const std::string& /*event*/) { thread = ::gettid(); });
    Watch(std::chrono::seconds(1));
    recorder.PassScans(1);
    const std::string status = "/proc/self/task/" + std::to_string(thread) + "/status";
    const long before = Waits(status);
    ASSERT_GT(before, 0);
    recorder.PassScans(3);
    // One wait a scan, and some for the test's lock: more on a busy machine. One that polls waits a hundred times.
    EXPECT_LE(Waits(status) - before, 3 + 20);
    EXPECT_GE(Waits(status) - before, 2);
    watcher.reset();
}
