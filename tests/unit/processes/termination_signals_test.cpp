#include "termination_signals.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <csignal>
#include <thread>

using SystemServer::TerminationSignalsBlocked;

namespace {

bool IsBlocked(int signal)
{
    sigset_t mask;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return ::sigismember(&mask, signal) == 1;
}

} // namespace

TEST(BlockingTheTerminationSignals, LastsAsLongAsTheObject)
{
    for (const int signal : {SIGINT, SIGTERM, SIGQUIT}) {
        EXPECT_FALSE(IsBlocked(signal));
    }
    {
        const TerminationSignalsBlocked blocked;
        for (const int signal : {SIGINT, SIGTERM, SIGQUIT}) {
            EXPECT_TRUE(IsBlocked(signal));
            std::thread([signal] { EXPECT_TRUE(IsBlocked(signal)); }).join();
        }
        EXPECT_FALSE(IsBlocked(SIGHUP));
        EXPECT_FALSE(IsBlocked(SIGSEGV));
    }
    for (const int signal : {SIGINT, SIGTERM, SIGQUIT}) {
        EXPECT_FALSE(IsBlocked(signal));
    }
}

TEST(BlockingTheTerminationSignals, KeepsWhatWasBlockedBefore)
{
    sigset_t term;
    ::sigemptyset(&term);
    ::sigaddset(&term, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &term, nullptr);
    {
        const TerminationSignalsBlocked blocked;
    }
    EXPECT_TRUE(IsBlocked(SIGTERM));
    EXPECT_FALSE(IsBlocked(SIGINT));
    ::pthread_sigmask(SIG_UNBLOCK, &term, nullptr);
}
