#include "client/before_calls.h"
#include "client/fake_service.h"
#include "client/listening.h"
#include "support/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

namespace {

using AClientThatPublishes = WithoutAnEventService;

} // namespace

TEST_F(AClientThatPublishes, IsHeardByAListener)
{
    const Listener listener = Listen();
    EXPECT_EQ(bundle_client_publish("tuner", "station.found"), BUNDLE_CLIENT_OK);
    EXPECT_EQ(Next(listener), "tuner station.found");
}

TEST_F(AClientThatPublishes, WritesTheRecordOfTheWire)
{
    ASSERT_EQ(::mkfifo(EVENT_SERVICE, 0600), 0);
    const Common::UniqueFd fifo(::open(EVENT_SERVICE, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    EXPECT_EQ(bundle_client_publish("tuner", "station.found"), BUNDLE_CLIENT_OK);
    std::string bytes(1000, 'x');
    const ssize_t size = ::read(fifo.Get(), bytes.data(), bytes.size());
    ASSERT_GE(size, 0);
    EXPECT_EQ(bytes.substr(0, static_cast<std::size_t>(size)), EventOf("tuner", "station.found"));
}

TEST_F(AClientThatPublishes, ReportsThatNoProgramListens)
{
    EXPECT_EQ(bundle_client_publish("tuner", "event"), BUNDLE_CLIENT_UNHEARD) << "there is no event service";
    Listen();
    ASSERT_TRUE(Exists(EVENT_SERVICE));
    EXPECT_EQ(bundle_client_publish("tuner", "event"), BUNDLE_CLIENT_UNHEARD) << "the listener has gone";
    ASSERT_EQ(::unlink(EVENT_SERVICE), 0);
    ASSERT_EQ(::rmdir("/mnt/bolt"), 0);
    EXPECT_EQ(bundle_client_publish("tuner", "event"), BUNDLE_CLIENT_UNHEARD) << "there is no directory of services";
}

TEST_F(AClientThatPublishes, NeverWaitsForAListenerThatHasFallenBehind)
{
    const Listener listener = Listen();
    int published = 0;
    while (published < 100000 && bundle_client_publish("tuner", "event") == BUNDLE_CLIENT_OK) {
        ++published;
    }
    EXPECT_EQ(bundle_client_publish("tuner", "event"), BUNDLE_CLIENT_UNHEARD);
    EXPECT_GE(published, 500);
    int heard = 0;
    while (Next(listener, 0) == "tuner event") {
        ++heard;
    }
    EXPECT_EQ(heard, published);
    EXPECT_EQ(bundle_client_listener_skipped(listener.get()), 0U);
    EXPECT_EQ(bundle_client_publish("tuner", "event"), BUNDLE_CLIENT_OK);
}

TEST_F(AClientThatPublishes, SurvivesAListenerThatLeavesMeanwhile)
{
    Listener listener = Listen();
    const BeforeSending left([&listener](int /*fd*/) { listener.reset(); });
    EXPECT_EQ(bundle_client_publish("tuner", "event"), BUNDLE_CLIENT_OK) << "and no SIGPIPE has ended this process";
    EXPECT_EQ(listener, nullptr);
}

TEST_F(AClientThatPublishes, LetsNoProgramInheritTheEventService)
{
    const Listener listener = Listen();
    const auto before = OpenDescriptors();
    std::vector<int> flags;
    {
        const BeforeSending look([&](int /*fd*/) {
            for (const auto& [open, what] : OpenDescriptors()) {
                if (before.count(open) == 0) {
                    flags.push_back(::fcntl(open, F_GETFD));
                }
            }
        });
        EXPECT_EQ(bundle_client_publish("tuner", "event"), BUNDLE_CLIENT_OK);
    }
    EXPECT_EQ(flags, std::vector<int>(2, FD_CLOEXEC));
}

TEST_F(AClientThatPublishes, TakesOnlyNamesThatFitTheirFields)
{
    const Listener listener = Listen();
    const std::string longest(15, 'n');
    const std::string tooLong(16, 'n');
    EXPECT_EQ(bundle_client_publish(nullptr, "event"), BUNDLE_CLIENT_INVALID);
    EXPECT_EQ(bundle_client_publish("tuner", nullptr), BUNDLE_CLIENT_INVALID);
    EXPECT_EQ(bundle_client_publish(tooLong.c_str(), "event"), BUNDLE_CLIENT_INVALID);
    EXPECT_EQ(bundle_client_publish("tuner", tooLong.c_str()), BUNDLE_CLIENT_INVALID);
    EXPECT_EQ(Next(listener, 0), NONE);
    EXPECT_EQ(bundle_client_publish(longest.c_str(), longest.c_str()), BUNDLE_CLIENT_OK);
    EXPECT_EQ(Next(listener), longest + ' ' + longest);
}

TEST_F(AClientThatPublishes, DoesNotTouchWhatIsNoEventService)
{
    WriteFile(EVENT_SERVICE, "mine");
    EXPECT_EQ(bundle_client_publish("tuner", "event"), BUNDLE_CLIENT_NOT_A_FIFO);
    EXPECT_EQ(ReadFile(EVENT_SERVICE), "mine");
    ::unlink(EVENT_SERVICE);
    ASSERT_EQ(::mkfifo("/mnt/bolt/elsewhere", 0600), 0);
    ASSERT_EQ(::symlink("elsewhere", EVENT_SERVICE), 0);
    EXPECT_EQ(bundle_client_publish("tuner", "event"), BUNDLE_CLIENT_NOT_A_FIFO) << "a link leads to another's FIFO";
}

TEST_F(AClientThatPublishes, TellsThatTheEventServiceCannotBeOpened)
{
    ASSERT_EQ(::mkdir(EVENT_SERVICE, 0700), 0);
    EXPECT_EQ(bundle_client_publish("tuner", "event"), BUNDLE_CLIENT_SYSTEM);
    EXPECT_EQ(errno, EISDIR);
    ::rmdir(EVENT_SERVICE);
}

TEST_F(AClientThatPublishes, LosesAndTearsNothingWhereManyThreadsDoIt)
{
    constexpr int threadCount = 8;
    constexpr int perThread = 100;
    const Listener listener = Listen();
    std::atomic<int> refused{0};
    std::vector<std::thread> threads;
    threads.reserve(threadCount);
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&refused, name = "thread." + std::to_string(i)] {
            for (int k = 0; k < perThread; ++k) {
                refused += bundle_client_publish(name.c_str(), std::to_string(k).c_str()) == BUNDLE_CLIENT_OK ? 0 : 1;
            }
        });
    }
    std::vector<int> nextOf(threadCount);
    for (int k = 0; k < threadCount * perThread; ++k) {
        const std::string event = Next(listener);
        ASSERT_EQ(event.substr(0, 7), "thread.") << event;
        int& next = nextOf.at(static_cast<std::size_t>(event[7] - '0'));
        EXPECT_EQ(event.substr(9), std::to_string(next));
        ++next;
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(refused, 0);
    EXPECT_EQ(bundle_client_listener_skipped(listener.get()), 0U);
}
