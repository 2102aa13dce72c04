#include "support/shell.h"
#include "system/system_test.h"

#include <bundle_client.h>

#include <sys/wait.h>

#include <atomic>
#include <memory>
#include <thread>

namespace {

using namespace std::chrono_literals;

/// Longer than anything takes on a machine that is very busy.
constexpr int LONG = 60000;

using Listener = std::unique_ptr<bundle_client_listener, decltype(&bundle_client_listener_close)>;

class TheClientLibraryWithTheServer : public SystemTest {
public:
    static Listener Listen()
    {
        bundle_client_listener* listener = nullptr;
        EXPECT_EQ(bundle_client_listener_open(&listener), BUNDLE_CLIENT_OK);
        return {listener, bundle_client_listener_close};
    }

    /// Expects so many events of deletions, and no more.
    static void ExpectDeletions(const Listener& listener, int count)
    {
        bundle_client_event event{};
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(bundle_client_listener_next(listener.get(), &event, LONG), BUNDLE_CLIENT_OK) << i;
            EXPECT_STREQ(event.publisher, "bundle_service");
            EXPECT_STREQ(event.event, "app.event.init");
        }
        EXPECT_EQ(bundle_client_listener_next(listener.get(), &event, 0), BUNDLE_CLIENT_TIMEOUT);
        EXPECT_EQ(bundle_client_listener_skipped(listener.get()), 0U);
    }
};

} // namespace

TEST_F(TheClientLibraryWithTheServer, DeletesABundleAndReceivesTheEvent)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    pid_t server = 0;
    EXPECT_EQ(bundle_client_server(LONG, &server), BUNDLE_CLIENT_OK);
    EXPECT_EQ(server, daemon.Pid());
    const Listener listener = Listen();
    EXPECT_EQ(bundle_client_delete("radio", LONG), BUNDLE_CLIENT_OK);
    EXPECT_FALSE(Exists(collection / "radio"));
    ExpectDeletions(listener, 1);
    EXPECT_EQ(bundle_client_delete("radio", LONG), BUNDLE_CLIENT_UNKNOWN_BUNDLE);
}

TEST_F(TheClientLibraryWithTheServer, TellsWhatTheServerRefuses)
{
    ASSERT_TRUE(daemon.StartServing());
    unsigned status = 0;
    EXPECT_EQ(bundle_client_request(9, "", 0, LONG, &status), BUNDLE_CLIENT_OK);
    EXPECT_EQ(status, 400U);
    EXPECT_EQ(bundle_client_request(4, "short", 5, LONG, &status), BUNDLE_CLIENT_OK);
    EXPECT_EQ(status, 400U);
}

TEST_F(TheClientLibraryWithTheServer, DoesNotWaitLongerThanItsLimitForABundlesScript)
{
    collection.Bundle("radio").Uninstall(Shell("exec sleep 1000")).Write();
    ASSERT_TRUE(daemon.StartServing());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(bundle_client_delete("radio", 500), BUNDLE_CLIENT_TIMEOUT);
    const auto duration = std::chrono::steady_clock::now() - start;
    EXPECT_GE(duration, 500ms);
    EXPECT_LT(duration, 60s);
}

TEST_F(TheClientLibraryWithTheServer, DeletesABundleOnEachOfManyThreads)
{
    constexpr int count = 8;
    for (int i = 0; i < count; ++i) {
        collection.Bundle("radio" + std::to_string(i)).Write();
    }
    ASSERT_TRUE(daemon.StartServing());
    const Listener listener = Listen();
    std::atomic<int> deleted{0};
    std::vector<std::thread> threads;
    threads.reserve(count);
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&deleted, name = "radio" + std::to_string(i)] {
            deleted += bundle_client_delete(name.c_str(), LONG) == BUNDLE_CLIENT_OK ? 1 : 0;
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(deleted, count);
    ExpectDeletions(listener, count);
}

TEST_F(TheClientLibraryWithTheServer, TellsThatTheServerHasEnded)
{
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(daemon.Stop().status, 0);
    EXPECT_EQ(bundle_client_delete("radio", LONG), BUNDLE_CLIENT_UNREACHABLE);
}

TEST_F(TheClientLibraryWithTheServer, HasATwinInPython)
{
    collection.Bundle("radio").Write();
    ASSERT_TRUE(daemon.StartServing());
    if (std::system("command -v python3 > /dev/null") != 0) {
        GTEST_SKIP() << "there is no python3";
    }
    const std::string program = "import bundle_client\n"
                                "assert bundle_client.server() == " +
                                std::to_string(daemon.Pid()) +
                                "\n"
                                "with bundle_client.Listener() as listener:\n"
                                "    bundle_client.delete(\"radio\", 60)\n"
                                "    assert listener.next(60) == (\"bundle_service\", \"app.event.init\")\n"
                                "try:\n"
                                "    bundle_client.delete(\"radio\", 60)\n"
                                "except bundle_client.UnknownBundle:\n"
                                "    raise SystemExit(5)\n";
    WriteFile(Note("program.py"), program);
    const int status = std::system(("PYTHONPATH=" PYTHON_MODULE_DIRECTORY " python3 -B " + Note("program.py")).c_str());
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 5);
    EXPECT_FALSE(Exists(collection / "radio"));
}
