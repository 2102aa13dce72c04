#include "support/cpu_time.h"
#include "support/eventually.h"
#include "support/match.h"
#include "support/program.h"
#include "support/service_environment.h"
#include "support/unix_client.h"

#include <algapp_bolt_comm.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

using SystemServer::EVENT_SERVICE_PATH;
using SystemServer::PublishEvent;
using namespace std::chrono_literals;

namespace {

/// A FIFO without a reader refuses a writer that does not wait.
bool IsHeard()
{
    const int fd = ::open(EVENT_SERVICE_PATH, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    ::close(fd);
    return true;
}

void Write(const std::string& bytes)
{
    const int fd = ::open(EVENT_SERVICE_PATH, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    ::close(fd);
}

std::string EventOf(const std::string& publisher, const std::string& event)
{
    std::string record(64, '\0');
    publisher.copy(record.data(), 16);
    event.copy(record.data() + 16, 16);
    return PacketOf(1, 0, record);
}

/// The text after the time in each line.
std::vector<std::string> EventsIn(const std::string& output)
{
    std::vector<std::string> events;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        const auto found = Match(line, "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z (.*)");
        events.push_back(found.empty() ? "no event line: " + line : found[1]);
    }
    return events;
}

std::size_t LinesIn(const std::string& text)
{
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

class BundlectlEvents : public ::testing::Test {
protected:
    void SetUp() override
    {
        ::mkdir("/mnt/bolt", 0755);
        ::unlink(EVENT_SERVICE_PATH);
    }
};

} // namespace

TEST_F(BundlectlEvents, PrintsALineForEachWithTheTimeInUtc)
{
    const std::time_t before = std::time(nullptr);
    Program program({BUNDLECTL, "events", "--count", "1"});
    ASSERT_TRUE(Eventually(10s, IsHeard)) << program.Errors();
    PublishEvent("bundle_service", "app.event.init");
    EXPECT_EQ(program.Wait(), 0);
    EXPECT_EQ(program.Errors(), "");
    EXPECT_EQ(EventsIn(program.Output()), std::vector<std::string>{"bundle_service app.event.init"});
    std::tm utc{};
    ASSERT_NE(::strptime(program.Output().c_str(), "%Y-%m-%dT%H:%M:%SZ", &utc), nullptr);
    EXPECT_GE(::timegm(&utc), before);
    EXPECT_LE(::timegm(&utc), std::time(nullptr));
}

TEST_F(BundlectlEvents, PrintsEachAtOnceAndKeepsListening)
{
    Program program({BUNDLECTL, "events"});
    ASSERT_TRUE(Eventually(10s, IsHeard)) << program.Errors();
    for (std::size_t i = 1; i <= 3; ++i) {
        PublishEvent("test", "event");
        EXPECT_TRUE(Eventually(10s, [&] { return LinesIn(program.Output()) == i; })) << i;
    }
}

TEST_F(BundlectlEvents, WaitsWithoutSpinningWhenAPublisherHasEnded)
{
    const Program program({BUNDLECTL, "events"});
    ASSERT_TRUE(Eventually(10s, IsHeard)) << program.Errors();
    PublishEvent("test", "event");
    ASSERT_TRUE(Eventually(10s, [&] { return LinesIn(program.Output()) == 1; }));
    const auto before = CpuTimeOf(program.Pid());
    EXPECT_FALSE(Eventually(500ms, [&] { return CpuTimeOf(program.Pid()) - before > 150ms; })) << "it spins";
}

TEST_F(BundlectlEvents, LosesNoneOfManyAtOnce)
{
    Program program({BUNDLECTL, "events", "--count", "500"});
    ASSERT_TRUE(Eventually(10s, IsHeard)) << program.Errors();
    std::vector<std::string> expected;
    for (int i = 0; i < 500; ++i) {
        PublishEvent("test", ("event." + std::to_string(i)).c_str());
        expected.push_back("test event." + std::to_string(i));
    }
    EXPECT_EQ(program.Wait(), 0);
    EXPECT_EQ(program.Errors(), "");
    EXPECT_EQ(EventsIn(program.Output()), expected);
}

TEST_F(BundlectlEvents, EndsAfterItsCountEvenIfMoreHaveArrived)
{
    Program program({BUNDLECTL, "events", "--count", "2"});
    ASSERT_TRUE(Eventually(10s, IsHeard)) << program.Errors();
    Write(EventOf("a", "1") + EventOf("b", "2") + EventOf("c", "3"));
    EXPECT_EQ(program.Wait(), 0);
    EXPECT_EQ(EventsIn(program.Output()), (std::vector<std::string>{"a 1", "b 2"}));
}

TEST_F(BundlectlEvents, EndsWithZeroAtASignal)
{
    for (const int number : {SIGINT, SIGTERM}) {
        Program program({BUNDLECTL, "events"});
        ASSERT_TRUE(Eventually(10s, IsHeard)) << program.Errors();
        program.Signal(number);
        EXPECT_EQ(program.Wait(), 0);
        EXPECT_EQ(program.Output() + program.Errors(), "");
    }
}

TEST_F(BundlectlEvents, MakesTheMissingDirectoryAndFifo)
{
    ASSERT_EQ(::rmdir("/mnt/bolt"), 0);
    const mode_t before = ::umask(077);
    Program program({BUNDLECTL, "events"});
    ::umask(before);
    ASSERT_TRUE(Eventually(10s, IsHeard)) << program.Errors();
    struct stat status {};
    ASSERT_EQ(::stat(EVENT_SERVICE_PATH, &status), 0);
    EXPECT_TRUE(S_ISFIFO(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777U, 0660U);
    ASSERT_EQ(::stat("/mnt/bolt", &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0755U);
}

TEST_F(BundlectlEvents, EndsWithFourIfThePathIsTaken)
{
    std::ofstream(EVENT_SERVICE_PATH) << "mine";
    Program program({BUNDLECTL, "events"});
    EXPECT_EQ(program.Wait(), 4);
    EXPECT_EQ(program.Output(), "");
    EXPECT_EQ(program.Errors(),
              "bundlectl: no events can be heard: /mnt/bolt/event.paas.kov is in the way and is no FIFO: "
              "remove it.\n");
}

TEST_F(BundlectlEvents, EndsWithFourIfTheFifoCannotBeMade)
{
    ASSERT_EQ(::rmdir("/mnt/bolt"), 0);
    std::ofstream("/mnt/bolt") << "no directory";
    Program program({BUNDLECTL, "events"});
    EXPECT_EQ(program.Wait(), 4);
    EXPECT_NE(program.Errors().find("/mnt/bolt/event.paas.kov cannot be made or opened: Not a directory"),
              std::string::npos)
        << program.Errors();
    ASSERT_EQ(::unlink("/mnt/bolt"), 0);
}

TEST_F(BundlectlEvents, SkipsAndReportsOtherBytesAndContinues)
{
    lumo_header otherMethod{};
    otherMethod.method = 2;
    const std::string broken[] = {
        "x",
        "1234567",
        "a longer text that is no event at all, with more bytes than the record of one would have: yes, it has",
        PacketOf(1, 0, std::string(10, 'x')),
        PacketOf(otherMethod, std::string(64, 'x')),
        PacketOf(1, 5, std::string(64, 'x')),
        EventOf("half", "an event").substr(0, 40),
    };
    Program program({BUNDLECTL, "events"});
    ASSERT_TRUE(Eventually(10s, IsHeard)) << program.Errors();
    std::size_t events = 0;
    for (const std::string& bytes : broken) {
        const std::size_t before = LinesIn(program.Errors());
        Write(bytes);
        EXPECT_TRUE(Eventually(10s, [&] { return LinesIn(program.Errors()) > before; })) << bytes;
        PublishEvent("still", "here");
        ++events;
        EXPECT_TRUE(Eventually(10s, [&] { return LinesIn(program.Output()) == events; })) << bytes;
    }
    EXPECT_EQ(EventsIn(program.Output()), std::vector<std::string>(events, "still here"));
    EXPECT_EQ(program.Errors().rfind("bundlectl: 1 byte(s) skipped that are no event.\n", 0), 0U);
}

TEST_F(BundlectlEvents, FindsAnEventAmongOtherBytes)
{
    Program program({BUNDLECTL, "events", "--count", "2"});
    ASSERT_TRUE(Eventually(10s, IsHeard)) << program.Errors();
    Write("junk" + EventOf("a", "1") + "more junk" + EventOf("b", "2"));
    EXPECT_EQ(program.Wait(), 0);
    EXPECT_EQ(EventsIn(program.Output()), (std::vector<std::string>{"a 1", "b 2"}));
    EXPECT_EQ(program.Errors(), "bundlectl: 4 byte(s) skipped that are no event.\n"
                                "bundlectl: 9 byte(s) skipped that are no event.\n");
}

TEST_F(BundlectlEvents, EscapesControlCharactersAndPrintsOnlyTheFields)
{
    Program program({BUNDLECTL, "events", "--count", "2"});
    ASSERT_TRUE(Eventually(10s, IsHeard)) << program.Errors();
    Write(EventOf("a\nb\tc", "\x1B[1m\x7F\xC2\x9B"));
    Write(EventOf(std::string(16, 'p'), std::string(16, 'e')));
    EXPECT_EQ(program.Wait(), 0);
    EXPECT_EQ(EventsIn(program.Output()),
              (std::vector<std::string>{"a\\nb\\tc \\033[1m\\177\\302\\233",
                                        std::string(16, 'p') + ' ' + std::string(16, 'e')}));
}
