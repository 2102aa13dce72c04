#include "client/fake_service.h"
#include "client/listening.h"
#include "support/eventually.h"
#include "support/files.h"
#include "support/packets.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;
using AClientThatListens = WithoutAnEventService;

} // namespace

TEST_F(AClientThatListens, MakesTheEventServiceWhereItIsMissing)
{
    ASSERT_EQ(::rmdir("/mnt/bolt"), 0);
    const mode_t before = ::umask(077);
    const Listener listener = Listen();
    ::umask(before);
    struct stat status {};
    ASSERT_EQ(::stat("/mnt/bolt", &status), 0);
    EXPECT_EQ(status.st_mode, S_IFDIR | 0755U);
    ASSERT_EQ(::stat(EVENT_SERVICE, &status), 0);
    EXPECT_EQ(status.st_mode, S_IFIFO | 0660U);
}

TEST_F(AClientThatListens, TellsWhatIsInTheWay)
{
    auto* listener = reinterpret_cast<bundle_client_listener*>(1);
    WriteFile(EVENT_SERVICE, "mine");
    EXPECT_EQ(bundle_client_listener_open(&listener), BUNDLE_CLIENT_NOT_A_FIFO);
    EXPECT_EQ(listener, nullptr);
    EXPECT_EQ(ReadFile(EVENT_SERVICE), "mine");
    ::unlink(EVENT_SERVICE);
    ASSERT_EQ(::mkfifo("/mnt/bolt/elsewhere", 0600), 0);
    ASSERT_EQ(::symlink("elsewhere", EVENT_SERVICE), 0);
    EXPECT_EQ(bundle_client_listener_open(&listener), BUNDLE_CLIENT_NOT_A_FIFO) << "a link leads to another's FIFO";
    std::filesystem::remove_all("/mnt/bolt");
    WriteFile("/mnt/bolt", "no directory");
    EXPECT_EQ(bundle_client_listener_open(&listener), BUNDLE_CLIENT_SYSTEM);
    EXPECT_EQ(errno, ENOTDIR);
    ::unlink("/mnt/bolt");
}

TEST_F(AClientThatListens, TakesNoNullWhereAnObjectIsNeeded)
{
    bundle_client_event event{};
    EXPECT_EQ(bundle_client_listener_open(nullptr), BUNDLE_CLIENT_INVALID);
    EXPECT_EQ(bundle_client_listener_next(nullptr, &event, 0), BUNDLE_CLIENT_INVALID);
    const Listener listener = Listen();
    EXPECT_EQ(bundle_client_listener_next(listener.get(), nullptr, 0), BUNDLE_CLIENT_INVALID);
    EXPECT_EQ(bundle_client_listener_fd(nullptr), -1);
    EXPECT_EQ(bundle_client_listener_skipped(nullptr), 0U);
    bundle_client_listener_close(nullptr);
}

TEST_F(AClientThatListens, WaitsForAnEventAsLongAsItsLimit)
{
    const Listener listener = Listen();
    const auto start = Clock::now();
    EXPECT_EQ(Next(listener, 150), NONE);
    const auto duration = Clock::now() - start;
    EXPECT_GE(duration, 150ms);
    EXPECT_LT(duration, 30s);
}

TEST_F(AClientThatListens, WaitsForeverWithoutALimit)
{
    const Listener listener = Listen();
    std::thread publisher([] {
        Eventually(200ms, [] { return false; });
        bundle_client_publish("tuner", "event");
    });
    EXPECT_EQ(Next(listener, -1), "tuner event");
    publisher.join();
}

TEST_F(AClientThatListens, IsNotEndedBySignals)
{
    const Listener listener = Listen();
    const Interruptions interruptions;
    const auto start = Clock::now();
    EXPECT_EQ(Next(listener, 200), NONE);
    EXPECT_GE(Clock::now() - start, 200ms);
    std::thread publisher([] {
        Eventually(200ms, [] { return false; });
        bundle_client_publish("tuner", "event");
    });
    EXPECT_EQ(Next(listener, -1), "tuner event");
    publisher.join();
    EXPECT_GT(Interruptions::Count(), 20);
}

TEST_F(AClientThatListens, SkipsWhatIsNoEventAndCountsIt)
{
    const Listener listener = Listen();
    const std::vector<std::string> junk{
        "x",
        "1234567",
        std::string(500, 'j'),
        PacketOf(1, 0, "short"),
        PacketOf(1, 5, std::string(64, 'x')),
        PacketOf(2, 0, std::string(64, 'x')),
    };
    for (const std::string& bytes : junk) {
        Write(bytes);
        EXPECT_EQ(Next(listener, 0), NONE);
        EXPECT_EQ(bundle_client_listener_skipped(listener.get()), bytes.size());
        std::string around = bytes;
        around.append(EventOf("still", "here")).append(bytes);
        Write(around);
        EXPECT_EQ(Next(listener, 0), "still here");
        EXPECT_EQ(bundle_client_listener_skipped(listener.get()), bytes.size());
        EXPECT_EQ(Next(listener, 0), NONE);
        EXPECT_EQ(bundle_client_listener_skipped(listener.get()), bytes.size());
        EXPECT_EQ(bundle_client_listener_skipped(listener.get()), 0U);
    }
}

TEST_F(AClientThatListens, SkipsAnEventThatIsNotWhole)
{
    const Listener listener = Listen();
    for (const std::size_t size : {8U, 40U, 71U}) {
        Write(EventOf("half", "an event").substr(0, size));
        EXPECT_EQ(Next(listener, 0), NONE);
        EXPECT_EQ(bundle_client_listener_skipped(listener.get()), size);
        Write(EventOf("still", "here"));
        EXPECT_EQ(Next(listener, 0), "still here");
        EXPECT_EQ(bundle_client_listener_skipped(listener.get()), 0U);
    }
}

TEST_F(AClientThatListens, FindsAnEventWhereverAReadEndsInIt)
{
    constexpr std::size_t readAtOnce = 4032;
    const Listener listener = Listen();
    for (std::size_t early = 1; early < 72; ++early) {
        Write(std::string(readAtOnce - early, 'j'));
        Write(EventOf("a", "1") + EventOf("b", "2"));
        std::string event = Next(listener, 0);
        EXPECT_EQ(event == NONE ? Next(listener, 0) : event, "a 1") << early;
        EXPECT_EQ(Next(listener, 0), "b 2") << early;
        EXPECT_EQ(Next(listener, 0), NONE);
        EXPECT_EQ(bundle_client_listener_skipped(listener.get()), readAtOnce - early);
    }
}

TEST_F(AClientThatListens, EndsInTimeWhereNothingButJunkComes)
{
    const Listener listener = Listen();
    std::atomic<bool> isOver{false};
    std::thread publisher([&isOver] {
        const Common::UniqueFd fifo(::open(EVENT_SERVICE, O_RDWR | O_NONBLOCK | O_CLOEXEC));
        const std::string junk(4096, 'j');
        while (!isOver) {
            [[maybe_unused]] const ssize_t written = ::write(fifo.Get(), junk.data(), junk.size());
        }
    });
    const auto start = Clock::now();
    EXPECT_EQ(Next(listener, 100), NONE);
    const auto duration = Clock::now() - start;
    isOver = true;
    publisher.join();
    EXPECT_GE(duration, 100ms);
    EXPECT_LT(duration, 30s);
}

TEST_F(AClientThatListens, EndsNamesThatFillTheirFields)
{
    const Listener listener = Listen();
    Write(EventOf(std::string(16, 'p'), std::string(16, 'e')));
    EXPECT_EQ(Next(listener), std::string(16, 'p') + ' ' + std::string(16, 'e'));
}

TEST_F(AClientThatListens, HasADescriptorToPoll)
{
    const Listener listener = Listen();
    pollfd watched{bundle_client_listener_fd(listener.get()), POLLIN, 0};
    EXPECT_EQ(::poll(&watched, 1, 0), 0);
    bundle_client_publish("tuner", "event");
    EXPECT_EQ(::poll(&watched, 1, LONG), 1);
    EXPECT_EQ(watched.revents, POLLIN);
    EXPECT_EQ(Next(listener, 0), "tuner event");
    EXPECT_EQ(::poll(&watched, 1, 0), 0) << "a publisher that has gone is nothing to wake up for";
}

TEST_F(AClientThatListens, SharesTheEventsAmongListeners)
{
    const Listener first = Listen();
    const Listener second = Listen();
    std::vector<std::string> expected;
    for (int i = 0; i < 300; ++i) {
        const std::string name = std::to_string(1000 + i);
        ASSERT_EQ(bundle_client_publish("tuner", name.c_str()), BUNDLE_CLIENT_OK);
        expected.push_back("tuner " + name);
    }
    std::vector<std::string> heard;
    for (const Listener* listener : {&first, &second}) {
        for (int i = 0; i < 150; ++i) {
            heard.push_back(Next(*listener, 0));
        }
    }
    for (const Listener* listener : {&first, &second}) {
        for (std::string event = Next(*listener, 0); event != NONE; event = Next(*listener, 0)) {
            heard.push_back(event);
        }
        EXPECT_EQ(bundle_client_listener_skipped(listener->get()), 0U) << "none is torn";
    }
    heard.erase(std::remove(heard.begin(), heard.end(), NONE), heard.end());
    std::sort(heard.begin(), heard.end());
    EXPECT_EQ(heard, expected);
}

TEST_F(AClientThatListens, AndPublishingLeaveNoDescriptorOpen)
{
    const auto before = OpenDescriptors();
    for (int round = 0; round < 10; ++round) {
        bundle_client_publish("tuner", "nobody.listens");
        const Listener listener = Listen();
        bundle_client_publish("tuner", "event");
        Next(listener);
        const int fd = bundle_client_listener_fd(listener.get());
        EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0) << "no program inherits it";
    }
    ::unlink(EVENT_SERVICE);
    WriteFile(EVENT_SERVICE, "mine");
    bundle_client_listener* listener = nullptr;
    bundle_client_listener_open(&listener);
    bundle_client_publish("tuner", "event");
    EXPECT_EQ(OpenDescriptors(), before);
}
