#include "support/eventually.h"
#include "support/running_server.h"
#include "support/service_environment.h"
#include "support/unix_client.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <list>
#include <string>

using namespace std::chrono_literals;

namespace {

constexpr char SERVICE[] = "test.service";
constexpr uid_t NOBODY = 65534;

class AConnection : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_server.IsRegistered()) << LogText(); }

    static bool IsServed(const UnixClient& client)
    {
        const auto reply = client.Ask(PacketOf(ECHO, 0, "hello"), 10s);
        return reply && HeaderOf(*reply).status == 200 && reply->substr(8) == "hello";
    }

    const std::string m_path = SocketPath(SERVICE);
    RunningServer m_server{SERVICE, g_testProtocol};
};

/// Runs the steps as a user other than root and the server's. Returns whether they return true.
template <typename Steps> bool HoldsForNobody(Steps steps)
{
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(::setgid(NOBODY) == 0 && ::setuid(NOBODY) == 0 && steps() ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return status == 0;
}

} // namespace

TEST_F(AConnection, CarriesRequestsAndTheirReplies)
{
    const UnixClient client(m_path);
    ASSERT_TRUE(client.IsConnected());
    lumo_header header{};
    header.kind = 7;
    header.method = ECHO;
    header.uri = 0x1234;
    const auto reply = client.Ask(PacketOf(header, "content"), 10s);
    ASSERT_TRUE(reply);
    EXPECT_EQ(HeaderOf(*reply).length, 7);
    EXPECT_EQ(HeaderOf(*reply).kind, 7);
    EXPECT_EQ(HeaderOf(*reply).method, 0x80 | ECHO);
    EXPECT_EQ(HeaderOf(*reply).uri, 0x1234);
    EXPECT_EQ(HeaderOf(*reply).status, 200);
    EXPECT_EQ(reply->substr(8), "content");
}

TEST_F(AConnection, CarriesContentsOfEverySizeUpToAFullPacketFollowedByANul)
{
    const UnixClient client(m_path);
    for (const std::size_t size : {65528UL, 0UL, 1UL, 127UL, 128UL, 4096UL, 65527UL}) {
        const auto reply = client.Ask(PacketOf(ECHO, 0, std::string(size, 'x')), 10s);
        ASSERT_TRUE(reply) << size;
        EXPECT_EQ(reply->substr(8), std::string(size, 'x'));
    }
    EXPECT_EQ(ContentsWithoutNul(), 0);
}

TEST_F(AConnection, KeepsTheOrderOfRequestsThatAreSentTogether)
{
    const UnixClient client(m_path);
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(client.Send(PacketOf(ECHO, 0, std::to_string(i))));
    }
    for (int i = 0; i < 200; ++i) {
        const auto reply = client.Receive(10s);
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->substr(8), std::to_string(i));
    }
}

TEST_F(AConnection, IsAnnouncedToTheService)
{
    const int before = AnnouncedConnections();
    const UnixClient first(m_path);
    const UnixClient second(m_path);
    EXPECT_TRUE(Eventually(10s, [&] { return AnnouncedConnections() == before + 2; }));
}

TEST_F(AConnection, CanBeOneOfHundredsAtTheSameTime)
{
    std::list<UnixClient> clients;
    for (int i = 0; i < 300; ++i) {
        clients.emplace_back(m_path);
        ASSERT_TRUE(clients.back().IsConnected());
    }
    for (const UnixClient& client : clients) {
        ASSERT_TRUE(IsServed(client));
    }
}

TEST_F(AConnection, IsTheOnlyOneClosedForABrokenPacket)
{
    const std::string sound = PacketOf(ECHO, 0, "hello");
    const std::string broken[] = {
        "",
        "1234567",
        sound + "x",
        sound.substr(0, sound.size() - 1),
        PacketOf(ECHO, 0, std::string(65529, 'x')),
        PacketOf(ECHO, 0, std::string(65536, 'x')),
        PacketOf(ECHO, 0, std::string(65528, 'x')) + "sound but for this",
        std::string(100000, '\0'),
    };
    const UnixClient other(m_path);
    ASSERT_TRUE(IsServed(other));
    for (const std::string& packet : broken) {
        const UnixClient client(m_path);
        ASSERT_TRUE(IsServed(client));
        client.Send(packet);
        EXPECT_FALSE(client.Receive(10s)) << "a packet of " << packet.size() << " bytes has been answered";
        EXPECT_TRUE(client.IsClosedByPeer(10s)) << "a packet of " << packet.size() << " bytes";
        EXPECT_TRUE(IsServed(other));
    }
}

TEST_F(AConnection, IsClosedWithTheReasonInTheLog)
{
    const UnixClient client(m_path);
    client.Send("1234567");
    ASSERT_TRUE(client.IsClosedByPeer(10s));
    EXPECT_EQ(
        CountInLog("service[test.service]: a peer sent a broken packet (shorter than a header), its connection is "
                   "closed; 0 earlier ones are not shown."),
        1)
        << LogText();
}

TEST_F(AConnection, IsLoggedAtMostOnceASecondWhenManyAreBroken)
{
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 500; ++i) {
        const UnixClient client(m_path);
        client.Send("1234567");
        ASSERT_TRUE(client.IsClosedByPeer(10s));
    }
    const auto seconds = std::chrono::ceil<std::chrono::seconds>(std::chrono::steady_clock::now() - begin).count();
    const int records = CountInLog("a peer sent a broken packet");
    EXPECT_GE(records, 1);
    EXPECT_LE(records, seconds + 1);
}

TEST_F(AConnection, MayLeaveOneMebibyteOfRepliesUnreadRepeatedly)
{
    const UnixClient client(m_path);
    const UnixClient other(m_path);
    constexpr int requests = 1024 * 1024 / (BIG_CONTENT + 8);
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < requests; ++i) {
            ASSERT_TRUE(client.Send(PacketOf(BIG, 0, "")));
        }
        ASSERT_TRUE(IsServed(other));
        for (int i = 0; i < requests; ++i) {
            const auto reply = client.Receive(10s);
            ASSERT_TRUE(reply) << "reply " << i << " of round " << round;
            EXPECT_EQ(reply->size(), 8U + BIG_CONTENT);
        }
    }
}

TEST_F(AConnection, LetsNoReplyOvertakeWaitingOnes)
{
    const UnixClient client(m_path);
    const UnixClient other(m_path);
    constexpr int waiting = 10;
    for (int i = 0; i < waiting; ++i) {
        ASSERT_TRUE(client.Send(PacketOf(BIG, 0, "")));
    }
    // The loop handles one request of each connection in each round.
    for (int i = 0; i < waiting; ++i) {
        ASSERT_TRUE(IsServed(other));
    }
    // Reading one reply makes room for a small one, but the loop does not yet see the connection as writable.
    ASSERT_TRUE(client.Receive(10s));
    ASSERT_TRUE(client.Send(PacketOf(ECHO, 0, "hello")));
    ASSERT_TRUE(IsServed(other));
    for (int i = 1; i < waiting; ++i) {
        const auto reply = client.Receive(10s);
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->size(), 8U + BIG_CONTENT) << i;
    }
    EXPECT_EQ(client.Receive(10s).value_or("        none").substr(8), "hello");
}

TEST_F(AConnection, IsTheOnlyOneClosedWhenMoreThanOneMebibyteOfRepliesIsUnread)
{
    const UnixClient other(m_path);
    const UnixClient client(m_path);
    // The kernel's buffer holds some more. Twice the limit exceeds both together.
    constexpr int requests = 2 * 1024 * 1024 / BIG_CONTENT;
    for (int i = 0; i < requests && client.Send(PacketOf(BIG, 0, "")); ++i) {
        ASSERT_TRUE(IsServed(other));
    }
    EXPECT_TRUE(Eventually(10s, [] { return CountInLog("more than 1 MiB of replies wait") == 1; })) << LogText();
    EXPECT_TRUE(client.IsClosedByPeer(10s));
    EXPECT_TRUE(IsServed(other));
}

TEST_F(AConnection, TakesNoRepliesOnceItIsDroppedAndSurvivesACallbackThatKeepsSending)
{
    const UnixClient other(m_path);
    const UnixClient client(m_path);
    ASSERT_TRUE(client.Send(PacketOf(FLOOD, 0, "")));
    ASSERT_TRUE(Eventually(10s, IsRefusedAfterFlood));
    EXPECT_TRUE(client.IsClosedByPeer(10s));
    EXPECT_TRUE(IsServed(other));
    EXPECT_GE(RepliesTakenInFlood(), 1024 * 1024 / (BIG_CONTENT + 8));
    EXPECT_LT(RepliesTakenInFlood(), 100);
}

TEST_F(AConnection, IsTheOnlyOneClosedWhenTheServiceThrows)
{
    const UnixClient other(m_path);
    for (const std::uint8_t method : {THROW, THROW_INT}) {
        const UnixClient client(m_path);
        ASSERT_TRUE(client.Send(PacketOf(method, 0, "")));
        EXPECT_TRUE(client.IsClosedByPeer(10s));
        EXPECT_TRUE(IsServed(other));
    }
    EXPECT_EQ(CountInLog("service[test.service]: its message callback threw: thrown by the service."), 1) << LogText();
}

TEST_F(AConnection, MayEndWhileRepliesAreUnderWay)
{
    const UnixClient other(m_path);
    for (int i = 0; i < 50; ++i) {
        const UnixClient client(m_path);
        for (int request = 0; request < 10; ++request) {
            client.Send(PacketOf(BIG, 0, ""));
        }
    }
    EXPECT_TRUE(IsServed(other));
}

TEST_F(AConnection, GetsItsWaitingRepliesAfterItsPeerShutsDownItsSending)
{
    const UnixClient other(m_path);
    const UnixClient client(m_path);
    constexpr int requests = 15;
    for (int i = 0; i < requests; ++i) {
        ASSERT_TRUE(client.Send(PacketOf(BIG, 0, "")));
    }
    client.ShutDownSending();
    for (int i = 0; i < requests + 1; ++i) {
        ASSERT_TRUE(IsServed(other)); // by the last of these rounds the loop has read the peer's end
    }
    for (int i = 0; i < requests; ++i) {
        const auto reply = client.Receive(10s);
        ASSERT_TRUE(reply) << i;
        EXPECT_EQ(reply->size(), 8U + BIG_CONTENT);
    }
    EXPECT_TRUE(client.IsClosedByPeer(10s));
}

TEST_F(AConnection, IsRefusedToAnotherUserByTheSocketsMode)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root, to become another user";
    }
    EXPECT_TRUE(HoldsForNobody([this] { return UnixClient(m_path).Error() == EACCES; }));
}

TEST_F(AConnection, OfAnotherUserIsClosedAtOnceIfTheSocketLetsItIn)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root, to become another user";
    }
    ASSERT_EQ(::chmod(m_path.c_str(), 0666), 0);
    EXPECT_TRUE(HoldsForNobody([this] {
        const UnixClient client(m_path);
        return client.IsConnected() && !client.Ask(PacketOf(ECHO, 0, "hello"), 10s) && client.IsClosedByPeer(10s);
    }));
    EXPECT_EQ(CountInLog("of user 65534 is refused: only user 0 and root may connect"), 1) << LogText();
    EXPECT_TRUE(IsServed(UnixClient(m_path)));
}
