// Who may connect, and a socket file that somebody takes away.
#include "system/hostile_service.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <grp.h>

#include <cerrno>
#include <filesystem>

namespace {

constexpr uid_t NOBODY = 65534;

class APeerOfAnotherUser : public HostileService {
protected:
    void SetUp() override
    {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "needs root, to become another user";
        }
        StartServing();
    }

    /// Whether the attempt returns true for a process of that user and group.
    template <class Attempt> static bool Holds(uid_t user, gid_t group, const Attempt& attempt)
    {
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::_exit(::setgroups(0, nullptr) == 0 && ::setgid(group) == 0 && ::setuid(user) == 0 && attempt() ? 0 : 1);
        }
        int end = 0;
        ::waitpid(pid, &end, 0);
        return WIFEXITED(end) && WEXITSTATUS(end) == 0;
    }

    static bool IsTurnedAway()
    {
        const UnixClient client(SERVICE_SOCKET);
        client.SendWithoutWaiting(DeletePacket("radio"));
        return client.IsConnected() && !client.Receive(DaemonRunner::PATIENCE) &&
               client.IsClosedByPeer(DaemonRunner::PATIENCE);
    }
};

class TheSocketFile : public HostileService {
protected:
    void SetUp() override { StartServing(); }

    CollectionBuilder m_otherCollection;
    DaemonRunner m_other{m_otherCollection.Path()};
};

} // namespace

TEST_F(APeerOfAnotherUser, IsTurnedAwayHoweverOftenItTriesAlsoWhereTheSocketsModeLetsItIn)
{
    EXPECT_TRUE(Holds(NOBODY, NOBODY, [] { return UnixClient(SERVICE_SOCKET).Error() == EACCES; }));
    ASSERT_EQ(::chmod(SERVICE_SOCKET, 0666), 0);
    const auto begin = std::chrono::steady_clock::now();
    Withstands(2, [] {
        EXPECT_TRUE(Holds(NOBODY, NOBODY, [] {
            for (int i = 0; i < 300; ++i) {
                if (!IsTurnedAway()) {
                    return false;
                }
            }
            return true;
        }));
    });
    const auto seconds = std::chrono::ceil<std::chrono::seconds>(std::chrono::steady_clock::now() - begin).count();
    EXPECT_GE(daemon.CountInLog("of user 65534 is refused: only user 0 and root may connect"), 1);
    EXPECT_LE(daemon.CountInLog("of user 65534 is refused"), seconds + 1);
    ExpectRadioIsDeleted();
}

TEST_F(APeerOfAnotherUser, IsTurnedAwayAlsoWhereItIsOfTheServersGroup)
{
    EXPECT_TRUE(Holds(NOBODY, ::getegid(), IsTurnedAway)) << "the mode lets it in, the server does not";
    EXPECT_TRUE(daemon.WaitForLog("of user 65534 is refused"));
    ExpectGoodService();
    ExpectRadioIsDeleted();
}

TEST_F(APeerOfAnotherUser, IsJudgedByWhoConnectedAndNotByWhoSends)
{
    // Connected by root, then handed down to a process of no rights: it is root who has let it in.
    const UnixClient client(SERVICE_SOCKET);
    EXPECT_TRUE(Holds(NOBODY, NOBODY, [&] {
        return client.Ask(DeletePacket(NO_BUNDLE), DaemonRunner::PATIENCE) == StatusPacket(404);
    }));
    ExpectRadioIsDeleted();
}

TEST_F(TheSocketFile, MayVanishAndThoseWhoAreConnectedAreServedOn)
{
    const UnixClient early(SERVICE_SOCKET);
    ASSERT_EQ(early.Ask(DeletePacket(NO_BUNDLE), DaemonRunner::PATIENCE), StatusPacket(404));
    std::filesystem::remove(SERVICE_SOCKET);
    EXPECT_EQ(UnixClient(SERVICE_SOCKET).Error(), ENOENT);
    EXPECT_EQ(early.Ask(DeletePacket(NO_BUNDLE), DaemonRunner::PATIENCE), StatusPacket(404));
    EXPECT_TRUE(ComesToRest());
    EXPECT_EQ(early.Ask(DeletePacket("radio"), DaemonRunner::PATIENCE), StatusPacket(200));
    EXPECT_EQ(daemon.Stop().status, 0);
}

TEST_F(TheSocketFile, IsAtTheEndLeftToWhomeverHasTakenItsPlace)
{
    std::filesystem::remove(SERVICE_SOCKET);
    m_otherCollection.Bundle("tuner").Write();
    ASSERT_TRUE(m_other.StartServing()) << "the name is free";
    EXPECT_EQ(RequestDelete("radio"), 404) << "it is the other server that answers";
    EXPECT_EQ(daemon.Stop().status, 0);
    EXPECT_EQ(RequestDelete("tuner"), 200) << "and still does";
    EXPECT_EQ(m_other.Stop().status, 0);
    EXPECT_FALSE(Exists(SERVICE_SOCKET));
}

TEST_F(TheSocketFile, ReplacedByWhatIsNoSocketIsLeftAlone)
{
    const UnixClient early(SERVICE_SOCKET);
    std::filesystem::remove(SERVICE_SOCKET);
    WriteFile(SERVICE_SOCKET, "not a socket");
    EXPECT_EQ(UnixClient(SERVICE_SOCKET).Error(), ECONNREFUSED);
    EXPECT_EQ(early.Ask(DeletePacket("radio"), DaemonRunner::PATIENCE), StatusPacket(200));
    EXPECT_EQ(daemon.Stop().status, 0);
    EXPECT_EQ(ReadFile(SERVICE_SOCKET), "not a socket");
}
