// The locks of the table of children. Each test forces a schedule in which a missing lock would show.

#include "unit/processes/running_items.h"

#include "support/eventually.h"
#include "support/fault.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <string>
#include <utility>

using namespace std::chrono_literals;

namespace {

class TheLocksOfTheMonitor : public RunningItems {
public:
    /// Long enough for the monitor to act if no lock stops it.
    static constexpr auto A_WHILE = 300ms;
};

std::atomic<bool> g_nextChildDies{false};
std::function<void()> g_afterItsDeath;

void DieAtBirth()
{
    if (g_nextChildDies) {
        ::kill(::getpid(), SIGKILL);
    }
}

void GoOnInTheParent()
{
    if (g_nextChildDies.exchange(false)) {
        g_afterItsDeath();
    }
}

} // namespace

TEST_F(TheLocksOfTheMonitor, DelayADeathUntilTheChildIsRecorded)
{
    Start(collection.Bundle("media").Item("mediad", Sleeper())); // the monitor waits
    ASSERT_EQ(::pthread_atfork(nullptr, GoOnInTheParent, DieAtBirth), 0);
    g_afterItsDeath = [this] {
        EXPECT_FALSE(Eventually(A_WHILE, [this] { return log.HasPart("non-bundle process["); }));
    };
    g_nextChildDies = true;
    Start(collection.Bundle("radio").Item("radiod", Sleeper()));
    EXPECT_FALSE(g_nextChildDies);
    EXPECT_TRUE(IsLogged("radio.radiod relaunch done."));
    EXPECT_FALSE(log.HasPart("non-bundle process["));
}

TEST_F(TheLocksOfTheMonitor, DelayADeathUntilAStopHasMarkedAll)
{
    const auto activator = Start(collection.Bundle("media").Item("one", Sleeper()).Item("two", Sleeper()));
    const int first = std::min(PidOf("media.one"), PidOf("media.two"));
    const CallCounter kills(Call::KILL);
    bool isSeen = false;
    {
        const Fault makesLocksSeen(Call::LOCK_MUTEX, 0, 1, 1'000'000); // the Fault counts, but none fails
        const BeforeEach lock(Call::LOCK_MUTEX, [&](int) {
            if (kills.Count() == 1 && !std::exchange(isSeen, true)) { // before the lock for the second kill
                siginfo_t info{};
                ::waitid(P_PID, static_cast<id_t>(first), &info, WEXITED | WNOWAIT);
                EXPECT_FALSE(Eventually(A_WHILE, [this] { return log.HasPart("normal stop"); }));
            }
        });
        activator->Stop();
    }
    EXPECT_TRUE(isSeen);
    ASSERT_TRUE(MonitorEnds());
    EXPECT_TRUE(log.Has("normal stop media.one..."));
    EXPECT_TRUE(log.Has("normal stop media.two..."));
}
