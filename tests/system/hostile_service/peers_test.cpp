// Peers that send broken packets, read nothing, say nothing or vanish.

#include "common/wire.h"
#include "support/scale.h"
#include "system/hostile_service/bad_packets.h"
#include "system/hostile_service/hostile_service.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using Common::HEADER_SIZE;
using Common::MAX_PACKET_SIZE;

constexpr std::uint8_t METHOD_WITHOUT_A_HANDLER = 2;

/// A client that connects again when the server has closed its connection.
class StubbornPeer {
public:
    /// Sends the packet. Returns whether the server replies, or closes the connection, as it should.
    bool GetsItsAnswer(const BadPackets::Packet& packet)
    {
        if (!m_client) {
            m_client = std::make_unique<UnixClient>(SERVICE_SOCKET);
        }
        const std::vector<int> descriptors(packet.bytes.size() % 20 + 1, m_null);
        const bool sent = packet.hasDescriptors ? m_client->SendWithDescriptors(packet.bytes, descriptors)
                                                : m_client->Send(packet.bytes);
        const auto reply = m_client->Receive(DaemonRunner::PATIENCE);
        const auto status = AnswerTo(packet.bytes);
        if (status) {
            return sent && reply == StatusPacket(*status);
        }
        const bool isClosed = m_client->IsClosedByPeer(DaemonRunner::PATIENCE);
        m_client.reset();
        return sent && !reply && isClosed;
    }

    StubbornPeer() = default;
    StubbornPeer(const StubbornPeer&) = delete;
    StubbornPeer& operator=(const StubbornPeer&) = delete;
    ~StubbornPeer() { ::close(m_null); }

private:
    const int m_null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    std::unique_ptr<UnixClient> m_client;
};

std::string Hex(const std::string& bytes)
{
    constexpr std::size_t shown = 64;
    std::string text = std::to_string(bytes.size()) + " bytes:";
    for (const char c : bytes.substr(0, shown)) {
        text += ' ' + std::to_string(static_cast<unsigned char>(c));
    }
    return text;
}

class AHostilePeer : public HostileService {
protected:
    void SetUp() override { StartServing(); }

    void TearDown() override
    {
        if (!HasFailure() && !IsSkipped()) {
            ExpectRadioIsDeleted();
        }
        HostileService::TearDown();
    }

    /// Starts a process that connects and sends requests without end, reads nothing, and is killed meanwhile.
    static void AskAndBeKilled()
    {
        std::array<int, 2> begun{};
        ASSERT_EQ(::pipe2(begun.data(), O_CLOEXEC), 0);
        const pid_t pid = ::fork();
        if (pid == 0) {
            const UnixClient client(SERVICE_SOCKET);
            const std::string request = DeletePacket(NO_BUNDLE);
            for (int i = 0; client.Send(request); ++i) {
                if (i == 10 && ::write(begun[1], "x", 1) != 1) {
                    break;
                }
            }
            ::_exit(0);
        }
        ::close(begun[1]);
        char byte = 0;
        EXPECT_EQ(::read(begun[0], &byte, 1), 1);
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        ::close(begun[0]);
    }
};

/// A thread that sends requests as fast as it can until it ends.
class Flood {
public:
    Flood()
        : m_thread([this] {
              const UnixClient client(SERVICE_SOCKET);
              const std::string request = DeletePacket("flood");
              while (!m_isOver) {
                  for (int i = 0; i < 8; ++i) {
                      m_asked += client.Send(request) ? 1 : 0;
                  }
                  for (int i = 0; i < 8; ++i) {
                      m_answered += client.Receive(DaemonRunner::PATIENCE) == StatusPacket(404) ? 1 : 0;
                  }
              }
          })
    {}
    Flood(const Flood&) = delete;
    Flood& operator=(const Flood&) = delete;
    ~Flood() { End(); }

    void End()
    {
        m_isOver = true;
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    long Asked() const { return m_asked; }
    long Answered() const { return m_answered; }

private:
    std::atomic<bool> m_isOver{false};
    std::atomic<long> m_asked{0};
    std::atomic<long> m_answered{0};
    std::thread m_thread;
};

} // namespace

TEST_F(AHostilePeer, ThatSendsMalformedPacketsIsRefusedOrDisconnectedAndLeavesNothingBehind)
{
    const int packets = Scaled(20'000, 1'000'000);
    constexpr int rounds = 4;
    BadPackets bad;
    int refused = 0;
    int closed = 0;
    const auto attack = [&] {
        StubbornPeer peer;
        for (int i = 0; i < packets / rounds && !HasFailure(); ++i) {
            const BadPackets::Packet packet = bad.Next();
            ASSERT_TRUE(peer.GetsItsAnswer(packet)) << i << ": " << Hex(packet.bytes);
            ++(AnswerTo(packet.bytes) ? refused : closed);
        }
        EXPECT_EQ(UnsoundLinesOfRotatedLog(), 0);
    };
    Withstands(rounds - 1, attack);
    EXPECT_GT(refused, packets / 4);
    EXPECT_GT(closed, packets / 4);
    Report("malformed packets refused, connections lost", std::to_string(refused) + ", " + std::to_string(closed));
}

TEST_F(AHostilePeer, ThatSendsNothingDoesNotDisturbOthers)
{
    const int peers = Scaled(300, 3000);
    AllowAllDescriptors();
    Withstands(2, [&] {
        std::list<UnixClient> silent;
        for (int i = 0; i < peers; ++i) {
            ASSERT_TRUE(silent.emplace_back(SERVICE_SOCKET).IsConnected());
        }
        ExpectGoodService();
        EXPECT_TRUE(ComesToRest());
        Report(std::to_string(peers) + " silent peers, kB of memory", std::to_string(PrivateKilobytes()));
    });
}

TEST_F(AHostilePeer, ThatSendsBigPacketsAndReadsNothingCostsTheServerOnlyTheSmallReplies)
{
    const int requests = Scaled(2000, 20'000);
    const UnixClient client(SERVICE_SOCKET);
    ExpectGoodService();
    const long before = PrivateKilobytes();
    const std::string request = PacketOf(METHOD_WITHOUT_A_HANDLER, 0, std::string(MAX_PACKET_SIZE - HEADER_SIZE, 'x'));
    for (int i = 0; i < requests; ++i) {
        ASSERT_TRUE(client.Send(request)) << i;
    }
    ASSERT_TRUE(daemon.WaitForLog("not support uri[0].method[2]", requests));
    const long after = PrivateKilobytes();
#if !defined(__SANITIZE_ADDRESS__) &&                                                                                  \
    !defined(__SANITIZE_THREAD__) // the sanitizers keep freed memory and data of their own
    EXPECT_LE(after, before + 2048);
#endif
    Report(std::to_string(requests) + " requests of 64 KiB, nothing read, kB of memory before and after",
           std::to_string(before) + ", " + std::to_string(after));
    ExpectGoodService();
    for (int i = 0; i < requests; ++i) {
        ASSERT_EQ(client.Receive(DaemonRunner::PATIENCE), StatusPacket(400)) << i;
    }
}

TEST_F(AHostilePeer, ThatNeverReadsIsTheOnlyOneDisconnected)
{
    const int peers = Scaled(1, 8);
    // A reply takes 8 bytes of the 1 MiB. The kernel's buffer holds further replies.
    static constexpr int most = 2 * 1024 * 1024 / 8;
    const UnixClient bystander(SERVICE_SOCKET);
    bool isTold = false; // of rounds in quick succession only the first is logged
    const auto attack = [&] {
        std::vector<std::thread> deaf;
        deaf.reserve(static_cast<std::size_t>(peers));
        for (int i = 0; i < peers; ++i) {
            deaf.emplace_back([] {
                const UnixClient client(SERVICE_SOCKET);
                const std::string request = PacketOf(METHOD_WITHOUT_A_HANDLER, 0, "");
                int sent = 0;
                while (sent < most && client.Send(request)) {
                    ++sent;
                }
                EXPECT_GT(sent, 1024 * 1024 / 8);
                EXPECT_LT(sent, most);
            });
        }
        for (std::thread& peer : deaf) {
            peer.join();
        }
        EXPECT_EQ(bystander.Ask(DeletePacket(NO_BUNDLE), DaemonRunner::PATIENCE), StatusPacket(404));
        std::ifstream log(daemon.LogFile());
        std::string line;
        while (std::getline(log, line) && line.find("more than 1 MiB of replies wait") == std::string::npos) {
        }
        isTold = isTold || log;
        EXPECT_EQ(UnsoundLinesOfRotatedLog(), 0);
    };
    // The heap may keep the memory of one queue, but not of every queue.
    constexpr long oneQueue = 2048;
    Withstands(Scaled(1, 4), attack, oneQueue);
    EXPECT_TRUE(isTold) << "no record mentions it";
}

TEST_F(AHostilePeer, ThatVanishesInTheMiddleLeavesNothingBehind)
{
    const int peers = Scaled(40, 2000);
    Withstands(2, [&] {
        for (int i = 0; i < peers; ++i) {
            AskAndBeKilled();
            const UnixClient leaver(SERVICE_SOCKET); // leaves with unread replies, which resets the connection
            for (int request = 0; request < 10; ++request) {
                ASSERT_TRUE(leaver.Send(DeletePacket(NO_BUNDLE)));
            }
            const UnixClient brief(SERVICE_SOCKET); // leaves without a request
        }
    });
}

TEST_F(AHostilePeer, ThatShutsDownItsSendingGetsEveryReplyAndLeavesNothingBehind)
{
    // More replies than the kernel holds for a peer that does not read yet.
    const int requests = 2000;
    Withstands(Scaled(2, 50), [&] {
        const UnixClient client(SERVICE_SOCKET);
        for (int i = 0; i < requests; ++i) {
            ASSERT_TRUE(client.Send(DeletePacket(NO_BUNDLE)));
        }
        client.ShutDownSending();
        ExpectGoodService();
        EXPECT_TRUE(ComesToRest());
        for (int i = 0; i < requests; ++i) {
            ASSERT_EQ(client.Receive(DaemonRunner::PATIENCE), StatusPacket(404)) << i;
        }
        EXPECT_TRUE(client.IsClosedByPeer(DaemonRunner::PATIENCE));
    });
}

TEST_F(AHostilePeer, ThatShutsDownItsSendingAndVanishesLeavesNothingBehind)
{
    Withstands(Scaled(5, 200), [] {
        const UnixClient client(SERVICE_SOCKET);
        for (int i = 0; i < 2000; ++i) {
            ASSERT_TRUE(client.Send(DeletePacket(NO_BUNDLE)));
        }
        client.ShutDownSending();
    });
}

TEST_F(AHostilePeer, ThatShutsDownItsReceivingIsDisconnected)
{
    Withstands(Scaled(20, 1000), [] {
        const UnixClient client(SERVICE_SOCKET);
        ::shutdown(client.Fd(), SHUT_RD);
        while (client.Send(DeletePacket(NO_BUNDLE))) {
        }
    });
}

TEST_F(AHostilePeer, ThatFloodsTheServiceWithSevenOthersDoesNotKeepAGoodOneFromBeingServed)
{
    const int questions = Scaled(500, 20'000);
    std::vector<std::chrono::microseconds> latencies;
    long flooded = 0;
    Withstands(1, [&] {
        {
            std::list<Flood> floods(8);
            const UnixClient client(SERVICE_SOCKET);
            for (int i = 0; i < questions; ++i) {
                const auto begin = std::chrono::steady_clock::now();
                ASSERT_EQ(client.Ask(DeletePacket(NO_BUNDLE), DaemonRunner::PATIENCE), StatusPacket(404));
                latencies.push_back(
                    std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - begin));
            }
            for (Flood& flood : floods) {
                flood.End();
                EXPECT_EQ(flood.Answered(), flood.Asked());
                flooded += flood.Answered();
            }
        }
        EXPECT_EQ(UnsoundLinesOfRotatedLog(), 0);
    });
    std::sort(latencies.begin(), latencies.end());
    EXPECT_GT(flooded, questions) << "the flood was smaller than the good traffic";
    Report("replies to the flood", std::to_string(flooded));
    Report("replies to the good peer; half within, all within us",
           std::to_string(latencies.size()) + "; " + std::to_string(latencies[latencies.size() / 2].count()) + ", " +
               std::to_string(latencies.back().count()));
}

TEST_F(AHostilePeer, LeavesGoodOnesTheirAnswersAfterASlowOperation)
{
    staging.Bundle("slow")
        .Install(Shell(": > " + Note("installing") + "\nwhile [ ! -e " + Note("go-on") + " ]; do sleep 0.05; done"))
        .Write();
    MoveIn("slow");
    ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return Exists(Note("installing")); }));
    std::list<UnixClient> good;
    std::list<UnixClient> bad;
    const std::string broken = DeletePacket(NO_BUNDLE) + "x";
    for (int i = 0; i < 8; ++i) {
        ASSERT_TRUE(good.emplace_back(SERVICE_SOCKET).Send(DeletePacket(NO_BUNDLE)));
        ASSERT_TRUE(bad.emplace_back(SERVICE_SOCKET).Send(broken));
        UnixClient(SERVICE_SOCKET).Send(DeletePacket(NO_BUNDLE));
    }
    ASSERT_TRUE(daemon.WaitForLog("find bundle[not-there]..."));
    EXPECT_TRUE(ComesToRest()) << "waiting uses no processor time";
    EXPECT_EQ(daemon.CountInLog("find bundle[not-there] fail."), 0);
    WriteFile(Note("go-on"), "");
    for (const UnixClient& client : good) {
        EXPECT_EQ(client.Receive(DaemonRunner::PATIENCE), StatusPacket(404));
    }
    for (const UnixClient& client : bad) {
        EXPECT_TRUE(client.IsClosedByPeer(DaemonRunner::PATIENCE));
    }
    EXPECT_TRUE(daemon.WaitForLog("bundle[slow] state changing[Starting] -> [Active]"));
    ExpectGoodService();
}
