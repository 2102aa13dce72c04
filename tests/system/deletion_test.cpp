// Deleting a bundle by a request: the stop, the removal, the reply and the event that follows.

#include "system/system_test.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;

class DeletingABundle : public SystemTest {
protected:
    /// The records of the deletion of "radio" by the thread that serves requests, in their order.
    std::vector<std::string> DeletionOf(pid_t item) const
    {
        const std::string script = collection / "radio/./script/uninstall.sh";
        return {
            "receive uri: 0,method: 4",
            "find bundle[radio]...",
            "find bundle done.",
            "stop bundle[radio]...",
            "bundle[radio] state changing[Active] -> [Stopping]",
            "stop bundle[radio] activator...",
            "bundle[radio] item[radiod] pid[" + std::to_string(item) + "]",
            "stop bundle[radio] activator Done.",
            "bundle[radio] state changing[Stopping] -> [Resolved]",
            "stop bundle done.",
            "unload bundle[radio]...",
            "run script[" + script + "]...",
            "run script[" + script + "] done.",
            "unload bundle done.",
            "success to rm : [" + collection / "radio" + "].",
            "open event srv fail",
        };
    }

    /// The last records of the thread that serves requests.
    std::vector<std::string> LastOfMainThread(std::size_t count)
    {
        std::vector<std::string> messages;
        for (const LogRecord& record : daemon.Log()) {
            if (record.thread == daemon.Pid()) {
                messages.push_back(record.message);
            }
        }
        messages.erase(messages.begin(),
                       messages.end() - static_cast<std::ptrdiff_t>(std::min(count, messages.size())));
        return messages;
    }
};

class PublishingADelete : public SystemTest {
protected:
    void SetUp() override
    {
        collection.Bundle("radio").Write();
        ASSERT_TRUE(daemon.StartServing());
    }
};

} // namespace

TEST_F(DeletingABundle, StopsUnloadsAndRemovesIt)
{
    collection.Bundle("radio")
        .Copy("radiod", TEST_SLEEPER)
        .Uninstall(Shell("ls -d " + collection / "radio" + " > " + Note("uninstalled")))
        .Write();
    collection.Bundle("tuner").Copy("tunerd", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    const pid_t deleted = daemon.WaitForItem("radio", "radiod");
    const pid_t kept = daemon.WaitForItem("tuner", "tunerd");
    const UnixClient client(SERVICE_SOCKET);
    ASSERT_EQ(client.Ask(DeletePacket("radio"), DaemonRunner::PATIENCE), StatusPacket(200));
    EXPECT_FALSE(Exists(collection / "radio"));
    EXPECT_EQ(ReadFile(Note("uninstalled")), collection / "radio" + "\n") << "the script runs before the removal";

    ASSERT_TRUE(daemon.WaitForLog("open event srv fail")); // after the reply: there is no event service
    const std::vector<std::string> expected = DeletionOf(deleted);
    EXPECT_EQ(LastOfMainThread(expected.size()), expected);
    EXPECT_TRUE(daemon.WaitForLog("normal stop radio.radiod..."));
    EXPECT_FALSE(ProcessOf::IsAlive(deleted));
    EXPECT_TRUE(ProcessOf::IsAlive(kept));
    // The watcher sees the removal of the directory too. Its handler finds no bundle any more.
    EXPECT_TRUE(daemon.WaitForLog("find bundle[" + collection / "radio" + "] fail."));
    EXPECT_EQ(RequestDelete("radio"), 404);
}

TEST_F(DeletingABundle, FindsItByItsNameInAnyDirectory)
{
    collection.BundleIn("some-directory").Name("radio").Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(RequestDelete("some-directory"), 404);
    EXPECT_EQ(RequestDelete("radio"), 200);
    EXPECT_FALSE(Exists(collection / "some-directory"));
}

TEST_F(DeletingABundle, WorksForANameThatFillsTheField)
{
    const std::string longest(128, 'n');
    collection.BundleIn("long").Name(longest).Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(RequestDelete(longest), 200);
    EXPECT_FALSE(Exists(collection / "long"));
}

TEST_F(DeletingABundle, AllowsItsInstallationAgainAtOnce)
{
    collection.Bundle("radio").Write();
    staging.Bundle("radio").Write();
    ASSERT_TRUE(daemon.StartServing());
    ASSERT_EQ(RequestDelete("radio"), 200);
    MoveIn("radio"); // before the watcher can see that the old one is gone
    EXPECT_TRUE(daemon.WaitForLog("bundle[radio] state changing[Starting] -> [Active]", 2, 10s));
    EXPECT_EQ(RequestDelete("radio"), 200);
}

// The monitor waits for children of the server all the time. Scripts and the removal are children that it must leave
// alone.
TEST_F(DeletingABundle, SucceedsEachTimeWhileChildrenAreSupervised)
{
    constexpr int count = 40;
    collection.Bundle("tuner").Copy("tunerd", TEST_SLEEPER).Write();
    for (int i = 0; i < count; ++i) {
        collection.Bundle("radio" + std::to_string(i)).Uninstall(Shell("exit 0")).Write();
    }
    ASSERT_TRUE(daemon.StartServing());
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ(RequestDelete("radio" + std::to_string(i)), 200) << i;
        ASSERT_FALSE(Exists(collection / ("radio" + std::to_string(i))));
    }
    EXPECT_EQ(daemon.CountInLog("non-bundle process["), 0);
    EXPECT_EQ(daemon.CountInLog("exception info"), 0);
    EXPECT_EQ(daemon.CountInLog("success to rm : ["), count);
}

TEST_F(DeletingABundle, SucceedsWhenItsScriptAndTheRemovalEndBeforeTheirGroupIsSet)
{
    Interpose("DELAY_SETPGID", "1");
    collection.Bundle("tuner").Copy("tunerd", TEST_SLEEPER).Write();
    collection.Bundle("radio").Uninstall(Shell("exit 0")).Write();
    ASSERT_TRUE(daemon.StartServing());
    ASSERT_NE(daemon.WaitForItem("tuner", "tunerd"), 0);
    EXPECT_EQ(RequestDelete("radio"), 200);
    EXPECT_FALSE(Exists(collection / "radio"));
    EXPECT_EQ(daemon.CountInLog("non-bundle process["), 0);
    EXPECT_EQ(daemon.CountInLog("exception info"), 0);
    EXPECT_EQ(daemon.CountInLog("setpgid "), 0) << "the monitor's group existed long before";
}

TEST_F(DeletingABundle, IsAnsweredAfterASecondBySlowDisksAndKeepsNoServerFromEnding)
{
    constexpr auto delay = 60s;
    Interpose("DELAY_FSYNC", "60");
    for (const char* const name : {"radio", "tuner", "video"}) {
        collection.Bundle(name).Write();
    }
    ASSERT_TRUE(daemon.StartServing());
    const auto start = std::chrono::steady_clock::now();
    for (const char* const name : {"radio", "tuner", "video"}) {
        EXPECT_EQ(RequestDelete(name), 200);
        EXPECT_FALSE(Exists(collection / name));
        const std::vector<std::string> threads = daemon.ThreadNames();
        EXPECT_EQ(std::count(threads.begin(), threads.end(), "bundle_sync"), 1)
            << "one thread for all deletions that wait";
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start, 3s);
    EXPECT_EQ(daemon.CountInLog("is not synced yet."), 3);
    EXPECT_EQ(daemon.Stop(SIGTERM).status, 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, delay);
}

TEST_F(DeletingABundle, DoesNotTouchItsDependants)
{
    collection.Bundle("base").Copy("based", TEST_SLEEPER).Write();
    collection.Bundle("radio").Requires("base").Copy("radiod", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    const pid_t dependant = daemon.WaitForItem("radio", "radiod");
    ASSERT_EQ(RequestDelete("base"), 200);
    EXPECT_FALSE(daemon.WaitForLog("bundle[radio] state changing[Active]", 1, 2s));
    EXPECT_TRUE(ProcessOf::IsAlive(dependant));
    ASSERT_EQ(RequestDelete("radio"), 200);
}

// A relaunch takes a second. Until it is done the server knows only the dead process, which cannot be killed.
TEST_F(DeletingABundle, FailsInTheSecondInWhichAnItemIsRelaunched)
{
    collection.Bundle("radio")
        .Item("radio.sh", Shell("[ -e " + Note("rest") + " ] && exec sleep 1000\nexit 2"))
        .Write();
    ASSERT_TRUE(daemon.StartServing());
    const std::string begin = "need relaunch and now radio.radio.sh is relaunching ...";
    ASSERT_TRUE(daemon.WaitForLog(begin, daemon.CountInLog(begin) + 1));
    const int relaunches = daemon.CountInLog("radio.radio.sh relaunch done.");
    const std::uint16_t status = RequestDelete("radio");
    if (daemon.CountInLog("radio.radio.sh relaunch done.") != relaunches) {
        GTEST_SKIP() << "this machine is too slow: the second was over before the request was answered";
    }
    EXPECT_EQ(status, 400);
    EXPECT_EQ(daemon.CountInLog("exception info: [Invalid argument: bundle[radio] activator stop :kill process["), 1);
    EXPECT_TRUE(InOrder(daemon.Messages(),
                        {"bundle[radio] state changing[Stopping] -> [Active]", "uninstalling bundle[radio] failed."}));
    EXPECT_TRUE(Exists(collection / "radio"));
    WriteFile(Note("rest"), "");
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [] { return RequestDelete("radio") == 200; }));
}

TEST_F(PublishingADelete, WritesOneEventToTheEventService)
{
    const EventFifo fifo;
    EXPECT_EQ(RequestDelete("radio"), 200);
    std::string packet;
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [&] { return !(packet = fifo.Received()).empty(); }));
    std::string expected("\x40\0\0\x01\0\0\0\0", 8); // the header: 64 bytes of content, method 1
    std::string publisher = "bundle_service";
    std::string event = "app.event.init";
    publisher.resize(16, '\0');
    event.resize(48, '\0');
    EXPECT_EQ(packet, expected + publisher + event);

    EXPECT_EQ(RequestDelete("radio"), 404);
    EXPECT_EQ(fifo.Received(), "") << "only a deletion is published";
}

TEST_F(PublishingADelete, DoesNotAffectTheReplyWithoutAnEventService)
{
    EXPECT_EQ(RequestDelete("radio"), 200);
    ASSERT_TRUE(daemon.WaitForLog("open event srv fail"));
    EXPECT_FALSE(Exists(EVENT_FIFO)) << "the listener makes it";
    EXPECT_TRUE(daemon.IsRunning());
    for (const LogRecord& record : daemon.Log()) {
        if (record.message == "open event srv fail") {
            EXPECT_NE(record.line.find(" ERROR 4 1 "), std::string::npos) << record.line;
        }
    }
}

TEST_F(PublishingADelete, DoesNotAffectTheReplyIfTheServiceIsNoFifo)
{
    ASSERT_EQ(::mkdir(EVENT_FIFO, 0755), 0);
    EXPECT_EQ(RequestDelete("radio"), 200);
    EXPECT_TRUE(daemon.WaitForLog("open event srv fail"));
    EXPECT_TRUE(daemon.IsRunning());
}

TEST_F(PublishingADelete, NeverWaitsForAListenerThatHasFallenBehind)
{
    const EventFifo fifo;
    fifo.Fill();
    EXPECT_EQ(RequestDelete("radio"), 200);
    EXPECT_EQ(RequestDelete("radio"), 404) << "the server still answers";
}
