// More peers than there is room for.
#include "support/scale.h"
#include "system/hostile_service/hostile_service.h"

#include <iterator>
#include <list>

namespace {

using namespace std::chrono_literals;

class ACrowdOfHostilePeers : public HostileService {
protected:
    void StartServingWithDescriptors(rlim_t limit)
    {
        AllowAllDescriptors();
        daemon.SetPreparation([limit] {
            rlimit limits{};
            ::getrlimit(RLIMIT_NOFILE, &limits);
            limits.rlim_cur = limit;
            ::setrlimit(RLIMIT_NOFILE, &limits);
        });
        StartServing();
    }

    static std::list<UnixClient> Connect(int count)
    {
        std::list<UnixClient> clients;
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(clients.emplace_back(SERVICE_SOCKET).Error(), 0) << i;
        }
        return clients;
    }

    /// Whether the service answers. A connection that only waits in the queue gets no answer.
    static bool IsServed(const UnixClient& client)
    {
        return client.Ask(DeletePacket(NO_BUNDLE), DaemonRunner::PATIENCE) == StatusPacket(404);
    }
};

} // namespace

TEST_F(ACrowdOfHostilePeers, MayTakeHalfOfTheDescriptorsAndLeavesTheServerTheOtherHalf)
{
    StartServingWithDescriptors(64);
    std::list<UnixClient> inside = Connect(32);
    for (const UnixClient& client : inside) {
        ASSERT_TRUE(IsServed(client));
    }
    std::list<UnixClient> outside = Connect(100);
    ASSERT_TRUE(daemon.WaitForLog("a connection cannot be accepted: 32 are open, as many as may be."));
    EXPECT_TRUE(ComesToRest());
    EXPECT_TRUE(outside.front().Send(DeletePacket(NO_BUNDLE)));
    EXPECT_EQ(outside.front().Receive(200ms), std::nullopt);
    for (const UnixClient& client : inside) {
        ASSERT_TRUE(IsServed(client));
    }
    EXPECT_LE(daemon.CountInLog("a connection cannot be accepted"), 2) << "waiting is logged rarely";

    // These need descriptors: the relaunch of a child, which ends the server if it fails, a script, another child, and
    // a removal.
    ASSERT_EQ(::kill(Radio(), SIGKILL), 0);
    EXPECT_NE(daemon.WaitForItem("radio", "radiod", 2), 0);
    staging.Bundle("tuner").Install(Shell(": > " + Note("installed"))).Copy("tunerd", TEST_SLEEPER).Write();
    MoveIn("tuner");
    EXPECT_TRUE(daemon.WaitForLog("bundle[tuner] state changing[Starting] -> [Active]"));
    EXPECT_TRUE(Exists(Note("installed")));
    EXPECT_EQ(inside.front().Ask(DeletePacket("tuner"), DaemonRunner::PATIENCE), StatusPacket(200));
    EXPECT_FALSE(Exists(collection / "tuner"));

    inside.clear();
    EXPECT_EQ(outside.front().Receive(DaemonRunner::PATIENCE), StatusPacket(404));
    while (!outside.empty()) {
        ASSERT_TRUE(IsServed(outside.front())) << outside.size() << " to go";
        outside.pop_front();
    }
    ExpectGoodService();
    ExpectRadioIsDeleted();
}

TEST_F(ACrowdOfHostilePeers, WaitsWithoutHarmWhileOthersHaveTakenTheDescriptors)
{
    StartServingWithDescriptors(256);
    Withstands(2, [this] {
        const UnixClient early(SERVICE_SOCKET);
        ASSERT_TRUE(IsServed(early));
        LimitDescriptors(static_cast<rlim_t>(daemon.Descriptors().rbegin()->first) + 1);
        const int failures = daemon.CountInLog("a connection cannot be accepted: Too many open files");
        const std::list<UnixClient> late = Connect(50);
        EXPECT_TRUE(daemon.WaitForLog("a connection cannot be accepted: Too many open files", failures + 1));
        EXPECT_TRUE(IsServed(early));
        EXPECT_TRUE(ComesToRest()) << "the loop spins";
        LimitDescriptors(256);
        for (const UnixClient& client : late) {
            ASSERT_TRUE(IsServed(client));
        }
    });
    ExpectRadioIsDeleted();
}

TEST_F(ACrowdOfHostilePeers, OfThousandsIsServedUpToTheLimitAndThenInTurn)
{
    const auto limit = Scaled<rlim_t>(2000, 16384);
    const int room = static_cast<int>(limit / 2);
    StartServingWithDescriptors(limit);
    Withstands(2, [&] {
        std::list<UnixClient> clients = Connect(room + 300);
        ASSERT_TRUE(IsServed(*std::next(clients.begin(), room - 1)));
        ASSERT_TRUE(
            Eventually(DaemonRunner::PATIENCE, [&] { return static_cast<int>(daemon.Descriptors().size()) >= room; }));
        EXPECT_TRUE(ComesToRest());
        Report(std::to_string(room) + " connections, kB of memory", std::to_string(PrivateKilobytes()));
        while (!clients.empty()) {
            ASSERT_TRUE(IsServed(clients.front())) << clients.size() << " to go";
            clients.pop_front();
        }
    });
    ExpectRadioIsDeleted();
}
