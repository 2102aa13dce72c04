#include "client/before_calls.h"
#include "client/fake_service.h"
#include "support/eventually.h"
#include "support/packets.h"

#include <bundle_client.h>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;

/// Longer than any answer takes on a machine that is very busy.
constexpr int LONG = 60000;

/// What a call returned, and when.
struct Timed {
    int result;
    std::chrono::nanoseconds duration;
};

Timed DeleteWithin(std::chrono::milliseconds limit)
{
    const auto start = Clock::now();
    const int result = bundle_client_delete("radio", static_cast<int>(limit.count()));
    return {result, Clock::now() - start};
}

/// Does not answer until the client has gone.
void Silence(int fd)
{
    while (!ReceivePacket(fd).empty()) {
    }
}

/// Answers after a while.
FakeService::Peer AnswerAfter(std::chrono::milliseconds pause, const std::string& packet)
{
    return [=](int fd) {
        ReceivePacket(fd);
        Eventually(pause, [] { return false; });
        SendPacket(fd, packet);
    };
}

lumo_header HeaderWith(unsigned char method, unsigned short length)
{
    lumo_header header{};
    header.method = method;
    header.status = 200;
    header.length = length;
    return header;
}

std::string Bytes(const lumo_header& header)
{
    return {reinterpret_cast<const char*>(&header), sizeof header};
}

/// With descriptors that the client has not asked for.
void AnswerWithDescriptors(int fd)
{
    ReceivePacket(fd);
    const std::string reply = StatusPacket(200);
    iovec content{const_cast<char*>(reply.data()), reply.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof fd)] = {};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* const rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof fd);
    std::memcpy(CMSG_DATA(rights), &fd, sizeof fd);
    ::sendmsg(fd, &message, MSG_NOSIGNAL);
}

} // namespace

TEST(AClientThatDeletes, SendsItsNameInAFieldOfZeros)
{
    std::string request;
    {
        const FakeService service([&request](int fd) {
            request = ReceivePacket(fd);
            SendPacket(fd, StatusPacket(200));
        });
        EXPECT_EQ(bundle_client_delete("radio", LONG), BUNDLE_CLIENT_OK);
    }
    EXPECT_EQ(request, DeletePacket("radio"));
}

TEST(AClientThatDeletes, ReturnsACodeForEachStatus)
{
    const std::vector<std::pair<std::uint16_t, int>> codes{
        {200, BUNDLE_CLIENT_OK},           {400, BUNDLE_CLIENT_FAILED},         {404, BUNDLE_CLIENT_UNKNOWN_BUNDLE},
        {0, BUNDLE_CLIENT_UNKNOWN_STATUS}, {500, BUNDLE_CLIENT_UNKNOWN_STATUS}, {65535, BUNDLE_CLIENT_UNKNOWN_STATUS}};
    for (const auto& [status, code] : codes) {
        const FakeService service(AnswerWith(StatusPacket(status)));
        EXPECT_EQ(bundle_client_delete("radio", LONG), code) << status;
    }
}

TEST(AClientThatDeletes, TakesOnlyNamesThatFitTheField)
{
    std::atomic<int> connections{0};
    const FakeService service([&connections](int fd) {
        ++connections;
        AnswerWith(StatusPacket(200))(fd);
    });
    EXPECT_EQ(bundle_client_delete(nullptr, LONG), BUNDLE_CLIENT_INVALID);
    EXPECT_EQ(bundle_client_delete("", LONG), BUNDLE_CLIENT_INVALID);
    EXPECT_EQ(bundle_client_delete(std::string(128, 'n').c_str(), LONG), BUNDLE_CLIENT_INVALID);
    EXPECT_EQ(bundle_client_delete(std::string(100000, 'n').c_str(), LONG), BUNDLE_CLIENT_INVALID);
    EXPECT_EQ(connections, 0);
    EXPECT_EQ(bundle_client_delete(std::string(127, 'n').c_str(), LONG), BUNDLE_CLIENT_OK);
    EXPECT_EQ(connections, 1);
}

TEST(AClientThatDeletes, TellsWhyNoServerIsReached)
{
    ::mkdir("/mnt/bolt", 0755);
    ::unlink("/mnt/bolt/bundlesvr.paas.kov");
    EXPECT_EQ(bundle_client_delete("radio", LONG), BUNDLE_CLIENT_UNREACHABLE);
    EXPECT_EQ(errno, ENOENT);
    {
        const FakeService service(Silence);
    }
    EXPECT_EQ(bundle_client_delete("radio", LONG), BUNDLE_CLIENT_UNREACHABLE);
    EXPECT_EQ(errno, ECONNREFUSED) << "the socket of a server that has ended";
}

TEST(AClientThatDeletes, ReturnsACodeForEachHostileAnswer)
{
    constexpr unsigned char response = 0x80;
    const std::string longest(65528, 'c');
    const std::vector<std::pair<std::string, int>> answers{
        {"", BUNDLE_CLIENT_CLOSED}, // an empty packet cannot be distinguished from the end
        {"x", BUNDLE_CLIENT_SHORT_REPLY},
        {StatusPacket(200).substr(0, 7), BUNDLE_CLIENT_SHORT_REPLY},
        {StatusPacket(200) + "x", BUNDLE_CLIENT_WRONG_LENGTH},
        {StatusPacket(200) + longest, BUNDLE_CLIENT_WRONG_LENGTH},
        {StatusPacket(200) + longest + "beyond the longest", BUNDLE_CLIENT_WRONG_LENGTH},
        {Bytes(HeaderWith(response, 1)), BUNDLE_CLIENT_WRONG_LENGTH},
        {Bytes(HeaderWith(response, 65535)), BUNDLE_CLIENT_WRONG_LENGTH},
        {Bytes(HeaderWith(4, 0)), BUNDLE_CLIENT_NOT_A_REPLY},
        {Bytes(HeaderWith(response, 1)) + "x", BUNDLE_CLIENT_OK},
        {PacketOf(HeaderWith(response | 4U, 0), longest), BUNDLE_CLIENT_OK},
    };
    for (const auto& [answer, code] : answers) {
        const FakeService service(AnswerWith(answer));
        EXPECT_EQ(bundle_client_delete("radio", LONG), code) << answer.substr(0, 20);
    }
}

TEST(AClientThatDeletes, TellsThatTheServerHasClosedTheConnection)
{
    const std::vector<FakeService::Peer> peers{
        [](int /*fd*/) {},                         // at once, so that the request may have no reader
        [](int fd) { ReceivePacket(fd); },         // after the request
        [](int fd) { ::shutdown(fd, SHUT_RDWR); }, // with the request unread
    };
    for (const FakeService::Peer& peer : peers) {
        for (int round = 0; round < 20; ++round) {
            const FakeService service(peer);
            EXPECT_EQ(bundle_client_delete("radio", LONG), BUNDLE_CLIENT_CLOSED);
        }
    }
}

TEST(AClientThatDeletes, SurvivesAServerThatClosesBeforeTheRequestIsSent)
{
    const FakeService service([](int /*fd*/) {});
    const BeforeSending closed([](int fd) {
        pollfd watched{fd, 0, 0};
        EXPECT_EQ(::poll(&watched, 1, LONG), 1);
        EXPECT_NE(watched.revents & POLLHUP, 0);
    });
    EXPECT_EQ(bundle_client_delete("radio", LONG), BUNDLE_CLIENT_CLOSED) << "and no SIGPIPE has ended this process";
}

TEST(AClientThatDeletes, WaitsForAnAnswerAsLongAsItsLimit)
{
    const FakeService service(Silence);
    const Timed timed = DeleteWithin(150ms);
    EXPECT_EQ(timed.result, BUNDLE_CLIENT_TIMEOUT);
    EXPECT_GE(timed.duration, 150ms);
    EXPECT_LT(timed.duration, 30s);
}

TEST(AClientThatDeletes, WaitsForAPlaceInTheQueueAsLongAsItsLimit)
{
    const BusyService service;
    const Timed timed = DeleteWithin(150ms);
    EXPECT_EQ(timed.result, BUNDLE_CLIENT_TIMEOUT);
    EXPECT_GE(timed.duration, 150ms);
    EXPECT_LT(timed.duration, 30s);
}

TEST(AClientThatDeletes, DoesNotWaitWithALimitOfZero)
{
    {
        const FakeService service(Silence);
        EXPECT_EQ(DeleteWithin(0ms).result, BUNDLE_CLIENT_TIMEOUT);
    }
    const BusyService service;
    EXPECT_EQ(DeleteWithin(0ms).result, BUNDLE_CLIENT_TIMEOUT);
}

TEST(AClientThatDeletes, WaitsForeverWithoutALimit)
{
    const FakeService service(AnswerAfter(300ms, StatusPacket(200)));
    const Timed timed = DeleteWithin(-1ms);
    EXPECT_EQ(timed.result, BUNDLE_CLIENT_OK);
    EXPECT_GE(timed.duration, 300ms);
}

TEST(AClientThatDeletes, IsNotEndedBySignals)
{
    const Interruptions interruptions;
    {
        const FakeService service(AnswerAfter(200ms, StatusPacket(200)));
        EXPECT_EQ(DeleteWithin(-1ms).result, BUNDLE_CLIENT_OK);
        EXPECT_EQ(DeleteWithin(1min).result, BUNDLE_CLIENT_OK);
    }
    {
        const FakeService service(Silence);
        const Timed timed = DeleteWithin(150ms);
        EXPECT_EQ(timed.result, BUNDLE_CLIENT_TIMEOUT);
        EXPECT_GE(timed.duration, 150ms);
    }
    const BusyService service;
    const Timed timed = DeleteWithin(150ms);
    EXPECT_EQ(timed.result, BUNDLE_CLIENT_TIMEOUT);
    EXPECT_GE(timed.duration, 150ms);
    EXPECT_GT(Interruptions::Count(), 50);
}

TEST(AClientThatDeletes, LeavesNoDescriptorOpenAfterAnyEnd)
{
    const std::map<int, std::string> before = OpenDescriptors();
    const std::vector<FakeService::Peer> peers{
        AnswerWith(StatusPacket(200)), AnswerWith("short"), AnswerWithDescriptors, Silence, [](int /*fd*/) {},
    };
    for (const FakeService::Peer& peer : peers) {
        const FakeService service(peer);
        for (int round = 0; round < 3; ++round) {
            DeleteWithin(50ms);
        }
    }
    {
        const BusyService service;
        DeleteWithin(10ms);
    }
    DeleteWithin(10ms);
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(AClientThatDeletes, LetsNoProgramInheritItsConnection)
{
    std::vector<std::string> inherited;
    const auto before = OpenDescriptors();
    {
        const FakeService service([&](int fd) {
            ReceivePacket(fd);
            for (const auto& [open, what] : OpenDescriptors()) {
                if (before.count(open) == 0 && (::fcntl(open, F_GETFD) & FD_CLOEXEC) == 0) {
                    inherited.push_back(what);
                }
            }
            SendPacket(fd, StatusPacket(200));
        });
        EXPECT_EQ(bundle_client_delete("radio", LONG), BUNDLE_CLIENT_OK);
    }
    EXPECT_EQ(inherited, std::vector<std::string>());
}

TEST(AClientThatDeletes, GivesEachOfManyThreadsItsOwnAnswer)
{
    // The status is the name.
    const FakeService service([](int fd) {
        const std::string request = ReceivePacket(fd);
        SendPacket(fd, StatusPacket(static_cast<std::uint16_t>(std::stoi(request.substr(sizeof(lumo_header))))));
    });
    const std::vector<std::pair<const char*, int>> names{
        {"200", BUNDLE_CLIENT_OK}, {"400", BUNDLE_CLIENT_FAILED}, {"404", BUNDLE_CLIENT_UNKNOWN_BUNDLE}};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    threads.reserve(9);
    for (int i = 0; i < 9; ++i) {
        threads.emplace_back([&wrong, &expected = names[static_cast<std::size_t>(i) % names.size()]] {
            for (int round = 0; round < 50; ++round) {
                wrong += bundle_client_delete(expected.first, LONG) == expected.second ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
}

TEST(AClientThatDeletes, EndsBeforeItsThreadIsCancelled)
{
    std::atomic<bool> isAsked{false};
    const FakeService service([&isAsked](int fd) {
        ReceivePacket(fd);
        isAsked = true;
        Silence(fd);
    });
    const std::map<int, std::string> before = OpenDescriptors();
    int result = -1;
    pthread_t thread{};
    const auto body = [](void* place) -> void* {
        *static_cast<int*>(place) = bundle_client_delete("radio", 200);
        ::pthread_testcancel();
        return nullptr;
    };
    ASSERT_EQ(::pthread_create(&thread, nullptr, body, &result), 0);
    ASSERT_TRUE(Eventually(30s, [&isAsked] { return isAsked.load(); }));
    ::pthread_cancel(thread);
    void* end = nullptr;
    ::pthread_join(thread, &end);
    EXPECT_EQ(end, PTHREAD_CANCELED);
    EXPECT_EQ(result, BUNDLE_CLIENT_TIMEOUT);
    EXPECT_TRUE(Eventually(30s, [&before] { return OpenDescriptors() == before; }))
        << "the service closes its own later";
}
