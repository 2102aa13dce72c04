// The users that may connect, and a socket file that is removed.
#include "system/hostile_service/hostile_service.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <utility>

namespace {

using namespace std::chrono_literals;

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

/// A process other than a server holds a lock while the server starts.
class AStartUnderALock : public HostileService {
protected:
    /// Starts a process of that user, which locks the file until LetGo or the end of the test. The flag O_CREAT makes a
    /// missing file.
    void Lock(const std::string& path, int flags, uid_t user)
    {
        std::array<int, 2> ready{};
        ASSERT_EQ(::pipe2(ready.data(), O_CLOEXEC), 0);
        m_holder = ::fork();
        if (m_holder == 0) {
            const bool holds = (user == 0 || (::setgid(user) == 0 && ::setuid(user) == 0)) &&
                               ::flock(::open(path.c_str(), flags, 0600), LOCK_EX | LOCK_NB) == 0;
            const char word = holds ? 'y' : 'n';
            if (::write(ready[1], &word, 1) == 1 && holds) {
                ::pause();
            }
            ::_exit(1);
        }
        ::close(ready[1]);
        char word = 'n';
        EXPECT_EQ(::read(ready[0], &word, 1), 1);
        EXPECT_EQ(word, 'y');
        ::close(ready[0]);
    }

    void LetGo()
    {
        if (m_holder > 0) {
            ::kill(m_holder, SIGKILL);
            ::waitpid(std::exchange(m_holder, 0), nullptr, 0);
        }
    }

    void TearDown() override
    {
        LetGo();
        HostileService::TearDown();
    }

private:
    pid_t m_holder = 0;
};

class TheSocketFile : public HostileService {
protected:
    void SetUp() override { StartServing(); }

    CollectionBuilder m_otherCollection;
    DaemonRunner m_other{m_otherCollection.Path()};
};

} // namespace

TEST_F(APeerOfAnotherUser, IsRefusedEachTimeEvenIfTheSocketsModeLetsItIn)
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

TEST_F(APeerOfAnotherUser, IsRefusedEvenInTheServersGroup)
{
    EXPECT_TRUE(Holds(NOBODY, ::getegid(), IsTurnedAway)) << "the file's mode admits it, the server does not";
    EXPECT_TRUE(daemon.WaitForLog("of user 65534 is refused"));
    ExpectGoodService();
    ExpectRadioIsDeleted();
}

TEST_F(APeerOfAnotherUser, IsRecognisedByItsConnectionInsteadOfTheSender)
{
    // Root connects and then gives up its rights. The connection still counts as root's.
    const UnixClient client(SERVICE_SOCKET);
    EXPECT_TRUE(Holds(NOBODY, NOBODY, [&] {
        return client.Ask(DeletePacket(NO_BUNDLE), DaemonRunner::PATIENCE) == StatusPacket(404);
    }));
    ExpectRadioIsDeleted();
}

TEST_F(AStartUnderALock, ThatAnyUserHoldsOnTheServiceDirectoryServes)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root, to become another user";
    }
    std::filesystem::create_directories("/mnt/bolt");
    Lock("/mnt/bolt", O_RDONLY | O_DIRECTORY | O_CLOEXEC, NOBODY);
    StartServing();
    ExpectGoodService();
    ExpectRadioIsDeleted();
    EXPECT_EQ(daemon.Stop().status, 0);
    EXPECT_TRUE(std::filesystem::is_empty("/mnt/bolt")) << "a clean end leaves nothing behind";
}

TEST_F(AStartUnderALock, ThatNoServerHoldsServesOnceTheLockIsFree)
{
    std::filesystem::create_directories("/mnt/bolt");
    Lock("/mnt/bolt/.bundlesvr.paas.kov.lock", O_RDONLY | O_CREAT | O_CLOEXEC, 0);
    StartServing();
    EXPECT_EQ(daemon.CountInLog("bolt_server_register fail."), 0);
    EXPECT_EQ(UnixClient(SERVICE_SOCKET).Error(), ENOENT);
    EXPECT_FALSE(daemon.WaitForLog("it can be reached now.", 1, 3s));
    EXPECT_EQ(daemon.CountInLog("it cannot be reached yet: /mnt/bolt/.bundlesvr.paas.kov.lock is locked"), 1);
    ASSERT_EQ(::kill(Radio(), SIGKILL), 0);
    EXPECT_NE(daemon.WaitForItem("radio", "radiod", 2), 0) << "supervision continues";
    LetGo();
    ASSERT_TRUE(daemon.WaitForLog("it can be reached now."));
    ExpectRadioIsDeleted();
    EXPECT_EQ(daemon.Stop().status, 0);
    EXPECT_TRUE(std::filesystem::is_empty("/mnt/bolt"));
}

TEST_F(AStartUnderALock, ThatNoServerHoldsEndsAtASignal)
{
    std::filesystem::create_directories("/mnt/bolt");
    Lock("/mnt/bolt/.bundlesvr.paas.kov.lock", O_RDONLY | O_CREAT | O_CLOEXEC, 0);
    StartServing();
    daemon.Signal(SIGTERM);
    const auto end = daemon.WaitForEnd(3s);
    ASSERT_TRUE(end);
    EXPECT_EQ(end->status, 0);
}

TEST_F(TheSocketFile, MayVanishAndConnectedClientsAreStillServed)
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

TEST_F(TheSocketFile, IsNotRemovedAtTheEndIfAnotherHasTakenItsPlace)
{
    std::filesystem::remove(SERVICE_SOCKET);
    m_otherCollection.Bundle("tuner").Write();
    ASSERT_TRUE(m_other.StartServing()) << "the name is free";
    EXPECT_EQ(RequestDelete("radio"), 404) << "the other server answers";
    EXPECT_EQ(daemon.Stop().status, 0);
    EXPECT_EQ(RequestDelete("tuner"), 200) << "the other server still answers";
    EXPECT_EQ(m_other.Stop().status, 0);
    EXPECT_FALSE(Exists(SERVICE_SOCKET));
}

TEST_F(TheSocketFile, ReplacedByAnotherFileIsNotTouched)
{
    const UnixClient early(SERVICE_SOCKET);
    std::filesystem::remove(SERVICE_SOCKET);
    WriteFile(SERVICE_SOCKET, "not a socket");
    EXPECT_EQ(UnixClient(SERVICE_SOCKET).Error(), ECONNREFUSED);
    EXPECT_EQ(early.Ask(DeletePacket("radio"), DaemonRunner::PATIENCE), StatusPacket(200));
    EXPECT_EQ(daemon.Stop().status, 0);
    EXPECT_EQ(ReadFile(SERVICE_SOCKET), "not a socket");
}
