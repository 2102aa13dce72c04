#include "start_up_signals.h"

#include "support/eventually.h"
#include "support/own_process.h"
#include "unit/processes/pid_namespace.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <optional>
#include <thread>

using SystemServer::StartUpSignals;

namespace {

constexpr std::chrono::seconds PATIENCE{30};

/// The number of threads after one thread has been started and has ended. With the first start, the thread sanitizer
/// and an emulator add threads of their own.
int ThreadsAtRest()
{
    std::thread([] {}).join();
    return OwnProcess::Threads();
}

bool IsBlocked(int signal)
{
    sigset_t mask;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, signal) == 1;
}

bool IsPending(int signal)
{
    sigset_t pending;
    ::sigpending(&pending);
    return sigismember(&pending, signal) == 1;
}

} // namespace

TEST(TheSignalsOfAStartUp, AreUnchangedInAnyProcessExceptProcessOne)
{
    const int threads = OwnProcess::Threads();
    StartUpSignals signals;
    EXPECT_EQ(OwnProcess::Threads(), threads);
    for (const int signal : {SIGINT, SIGTERM, SIGQUIT}) {
        EXPECT_FALSE(IsBlocked(signal));
    }
    signals.LeaveToLoop();
}

TEST(TheSignalsOfAStartUp, EndProcessOneEvenIfItSendsThemToItself)
{
    for (const int signal : {SIGINT, SIGTERM, SIGQUIT}) {
        const std::optional<int> status = PidNamespace::ExitStatusOf([signal] {
            const StartUpSignals signals;
            ::kill(::getpid(), signal);
            ::pause();
        });
        if (!status) {
            GTEST_SKIP() << "a process namespace cannot be made";
        }
        EXPECT_EQ(*status, 128 + signal);
    }
}

TEST(TheSignalsOfAStartUp, StayPendingForTheLoopOnceTheyAreLeftToIt)
{
    PidNamespace::Run([] {
        const int threads = ThreadsAtRest();
        StartUpSignals signals;
        signals.LeaveToLoop();
        EXPECT_TRUE(Eventually(PATIENCE, [&] { return OwnProcess::Threads() <= threads; }));
        for (const int signal : {SIGINT, SIGTERM, SIGQUIT}) {
            EXPECT_TRUE(IsBlocked(signal));
            EXPECT_FALSE(IsPending(signal));
            ::kill(::getpid(), signal);
            EXPECT_TRUE(IsPending(signal));
        }
    });
}

TEST(TheSignalsOfAStartUp, AreNoLongerHandledAfterItHasFailed)
{
    PidNamespace::Run([] {
        const int threads = ThreadsAtRest();
        {
            const StartUpSignals signals;
        }
        EXPECT_TRUE(Eventually(PATIENCE, [&] { return OwnProcess::Threads() <= threads; }));
    });
}
