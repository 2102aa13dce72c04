#include "support/scale.h"
#include "system/system_test.h"

#include <cerrno>
#include <csignal>
#include <string>

namespace {

class AFailingCallOfTheDaemon : public SystemTest {
public:
    /// @param from the call fails once a record with this text is written; empty: from the daemon's start on
    void Fail(const std::string& call, int error, const std::string& from = "", int after = 0, int count = 1)
    {
        Interpose("FAIL",
                  call + ":" + std::to_string(error) + ":" + std::to_string(count) + ":" + std::to_string(after));
        if (!from.empty()) {
            daemon.SetEnvironment("FAIL_FROM", from);
        }
    }

    /// The framework leaks the finished parts of its watcher when it cannot make the rest.
    void ExpectLeaksOfTheFramework()
    {
        daemon.SetEnvironment("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0");
    }

    /// Starts the daemon and expects it to end with status 70, to say why, and to leave no process behind.
    void EndsTheStart(const std::string& reason)
    {
        daemon.Start();
        const auto end = daemon.WaitForEnd();
        ASSERT_TRUE(end);
        EXPECT_EQ(end->status, 70) << "signal " << end->signal;
        EXPECT_NE(daemon.Errors().find(reason), std::string::npos) << daemon.Errors();
        EXPECT_TRUE(daemon.Descendants().empty());
    }

    /// Starts the daemon and expects it to serve and to have started the bundle.
    void DoesNotMatter()
    {
        ASSERT_TRUE(daemon.StartServing());
        EXPECT_TRUE(daemon.WaitForLog("bundle[radio] state changing[Starting] -> [Active]"));
        EXPECT_EQ(daemon.Stop().status, 0);
    }

    AFailingCallOfTheDaemon() { collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write(); }
};

class ADaemonWithoutMemory : public SystemTest {};

} // namespace

TEST_F(AFailingCallOfTheDaemon, EndsTheStartWhenTheWatcherCannotBeMade)
{
    Fail("inotify_init", EMFILE);
    EndsTheStart("I/O error: cannot initialize inotify");
}

TEST_F(AFailingCallOfTheDaemon, EndsTheStartWhenTheFrameworksWatcherHasNoThread)
{
    Fail("pthread_create", EAGAIN);
    ExpectLeaksOfTheFramework();
    EndsTheStart("cannot start thread");
}

TEST_F(AFailingCallOfTheDaemon, EndsTheStartWhenTheFrameworksThreadCannotBeMade)
{
    Fail("pthread_create", EAGAIN, "", 1);
    ExpectLeaksOfTheFramework();
    EndsTheStart("cannot start thread");
}

TEST_F(AFailingCallOfTheDaemon, EndsTheStartWhenTheWatcherHasNoThread)
{
    Fail("pthread_create", EAGAIN, "", 2);
    EndsTheStart("Resource temporarily unavailable");
}

TEST_F(AFailingCallOfTheDaemon, LeavesABundleUnloadedWhenTheMonitorHasNoThread)
{
    Fail("pthread_create", EAGAIN, "StartAllBundles...");
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_TRUE(daemon.WaitForLog("failed to start bundle[radio] :Invalid argument: process[radio.radiod] monitor "
                                  "thread fail: "));
    EXPECT_TRUE(daemon.Descendants().empty());
    EXPECT_EQ(RequestDelete("radio"), 404);
    EXPECT_EQ(daemon.Stop().status, 0);
}

TEST_F(AFailingCallOfTheDaemon, EndsTheStartWhenTheCollectionCannotBeRead)
{
    Fail("opendir", EMFILE, "LoadAllBundles...");
    EndsTheStart("File access error: too many open files: " + collection.Path());
}

TEST_F(AFailingCallOfTheDaemon, CostsOneBundleWhenItsManifestCannotBeRead)
{
    collection.Bundle("tuner").Write();
    Fail("read", EIO, "load bundle from " + (collection / "tuner"));
    DoesNotMatter();
    EXPECT_EQ(daemon.CountInLog("failed to load bundles from " + (collection / "tuner") + ":"), 1);
    EXPECT_EQ(daemon.CountInLog("load bundle[tuner] success."), 0);
}

TEST_F(AFailingCallOfTheDaemon, CostsOneBundleWhenItsDirectoryHasNoStatus)
{
    collection.Bundle("tuner").Write();
    Fail("stat64", EIO, "load bundle from " + (collection / "tuner"), 0, 2); // its own call, then the framework's
    DoesNotMatter();
    EXPECT_EQ(daemon.CountInLog("failed to load bundles from " + (collection / "tuner") + ":"), 1);
    EXPECT_EQ(daemon.CountInLog("load bundle[tuner] success."), 0);
}

TEST_F(AFailingCallOfTheDaemon, IsLoggedWhenAScriptCannotBeWaitedFor)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Install(Shell("exit 0")).Write();
    Fail("waitpid", ECHILD, "run script[");
    DoesNotMatter();
    EXPECT_EQ(daemon.CountInLog("exception info: [System exception: Cannot wait for process"), 1);
}

TEST_F(AFailingCallOfTheDaemon, IsRetriedWhenASignalInterruptsTheWaitForAScript)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Install(Shell(": > " + Note("installed"))).Write();
    Fail("waitpid", EINTR, "run script[", 0, 3);
    DoesNotMatter();
    EXPECT_TRUE(Exists(Note("installed")));
    EXPECT_EQ(daemon.CountInLog("exception info:"), 0);
}

// Any allocation of the start may fail. The daemon then ends as after any failed start, or serves, or runs on without
// the service and says so.
TEST_F(ADaemonWithoutMemory, EndsItsStartOrServes)
{
    if (!std::string(INSTRUMENTATION).empty()) {
        GTEST_SKIP() << "the compiler's instrumentation allocates too, and does not survive a failure";
    }
    collection.Bundle("radio").Requires("tuner").Install(Shell("exit 0")).Write();
    collection.Bundle("tuner").Write();
    daemon.SetEnvironment("LD_PRELOAD", TEST_MALLOC_FAULT);
    for (const long failures : {1L, 1'000'000L}) {
        daemon.SetEnvironment("MALLOC_FAILURES", std::to_string(failures));
        int up = 0; // starts in a row that served
        int ended = 0;
        for (int after = 0; up < 3; after += Scaled(17, 1)) {
            SCOPED_TRACE(std::to_string(failures) + " failures after " + std::to_string(after));
            daemon.SetEnvironment("MALLOC_AFTER", std::to_string(after));
            const auto timesUp = [this] {
                return daemon.CountInLog("bundle server start running...") +
                       daemon.CountInLog("bolt_event_mgr_new fail.") + daemon.CountInLog("bolt_server_register fail.");
            };
            const int before = timesUp();
            daemon.Start();
            ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [&] { return !daemon.IsRunning() || timesUp() > before; }));
            if (daemon.IsRunning()) {
                ++up;
                const ProcessEnd stopped = daemon.Stop(); // its end may allocate too, and then fails in the same way
                ASSERT_TRUE(stopped.status == 0 || stopped.status == 70) << "signal " << stopped.signal;
                continue;
            }
            ++ended;
            up = 0; // one failure may hit an optional step, long before the end of the start
            const auto end = daemon.WaitForEnd();
            ASSERT_EQ(end->status, 70) << "signal " << end->signal << ": " << daemon.Errors();
        }
        EXPECT_GT(ended, 10);
    }
}
