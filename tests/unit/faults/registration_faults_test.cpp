// Calls that fail while a service is registered.
#include "support/eventually.h"
#include "unit/faults/failing_service.h"

#include <bolt.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

namespace {

const std::string LOCK = std::string("/mnt/bolt/.") + SERVICE + ".lock";

/// The lock file of a server that was killed while it held the lock.
void LeaveLock()
{
    const int fd = ::open(LOCK.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    ::close(fd);
}

/// Makes a socket without a server.
void LeaveDeadSocket()
{
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    SOCKET.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::close(fd);
}

class AFailingCallAtTheRegistration : public AFailingCall {
public:
    /// Registers while the call fails. The registration must log the reason, leave nothing behind, and work the next
    /// time.
    void IsSaid(Call call, int error, const std::string& record, int after = 0)
    {
        SCOPED_TRACE(record + " call " + std::to_string(static_cast<int>(call)) + " after " + std::to_string(after));
        bolt_event_mgr* const manager = bolt_event_mgr_new(0);
        const bool isDead = Exists(SOCKET);
        const int descriptors = OwnProcess::Descriptors();
        log.Restart();
        {
            const Fault fault(call, error, 1, after);
            EXPECT_NE(RegisterService(SERVICE, manager, g_testProtocol), 0);
            EXPECT_TRUE(fault.HasStruck());
        }
        EXPECT_TRUE(log.HasPart(record));
        EXPECT_TRUE(log.HasPart(std::string("service[") + SERVICE + "]"));
        EXPECT_EQ(OwnProcess::Descriptors(), descriptors);
        EXPECT_TRUE(isDead || !Exists(SOCKET));
        EXPECT_TRUE(RunningServer(SERVICE, g_testProtocol).IsRegistered());
        EXPECT_FALSE(Exists(SOCKET));
    }
};

/// A registration that finds the lock held by a process that does not serve, and the loop that then tries to take it.
class AServiceThatWaitsForItsLock : public AFailingCall {
public:
    ~AServiceThatWaitsForItsLock() override
    {
        m_server.reset();
        EXPECT_FALSE(Exists(SOCKET)) << "the server removes its socket at its end";
    }

    /// Whether a server is registered although it could not take the lock, and its loop runs.
    bool Begins()
    {
        const NoPauses hurry;
        const Fault lock(Call::FLOCK, EWOULDBLOCK);
        m_server.emplace(SERVICE, g_testProtocol);
        return m_server->IsRegistered() && log.HasPart(LOCK + " is locked by another process.");
    }

    bool ComesToBeServed() const
    {
        return Eventually(PATIENCE, [] { return Exists(SOCKET); }) && IsServed();
    }

    bool IsGivenUp() const
    {
        return Eventually(PATIENCE,
                          [this] { return log.CountPart("it cannot be reached, and the server tries no") == 1; });
    }

private:
    std::optional<RunningServer> m_server;
};

} // namespace

TEST_F(AFailingCallAtTheRegistration, IsLoggedForTheDirectory)
{
    std::filesystem::remove_all("/mnt/bolt");
    IsSaid(Call::MKDIR, EROFS, "/mnt/bolt cannot be made: Read-only file system.");
    std::filesystem::remove_all("/mnt/bolt");
    IsSaid(Call::CHMOD, EPERM, "/mnt/bolt cannot be made: Operation not permitted.");
}

TEST_F(AFailingCallAtTheRegistration, IsLoggedForTheLock)
{
    const std::string notMade = "no lock can be made at " + LOCK;
    IsSaid(Call::OPEN, EMFILE, notMade + ": Too many open files.");
    IsSaid(Call::FLOCK, ENOLCK, notMade + ": No locks available.");
    LeaveLock();
    IsSaid(Call::LSTAT, EACCES, notMade + ": Permission denied.");
}

TEST_F(AFailingCallAtTheRegistration, DoesNotMatterWhenTheLockFileIsOpenedOrCheckedAgain)
{
    for (const Call call : {Call::OPEN, Call::LSTAT}) {
        LeaveLock();
        const Fault fault(call, EACCES, 1, 1);
        EXPECT_TRUE(RunningServer(SERVICE, g_testProtocol).IsRegistered());
        EXPECT_TRUE(fault.HasStruck());
        EXPECT_FALSE(Exists(LOCK));
    }
}

TEST_F(AFailingCallAtTheRegistration, DoesNotMatterIfTheLockFileKeepsItsModeOrStays)
{
    {
        const Fault mode(Call::FCHMOD, EPERM, 1);
        const Fault fault(Call::UNLINK, EROFS, 1);
        EXPECT_TRUE(RunningServer(SERVICE, g_testProtocol).IsRegistered());
        EXPECT_TRUE(fault.HasStruck());
    }
    EXPECT_TRUE(Exists(LOCK));
    EXPECT_TRUE(RunningServer(SERVICE, g_testProtocol).IsRegistered());
    EXPECT_FALSE(Exists(LOCK));
}

TEST_F(AFailingCallAtTheRegistration, IsLoggedForTheSocket)
{
    const std::string notMade = "no socket can be made at " + SOCKET;
    const std::string notReady = "the socket at " + SOCKET + " cannot be made ready";
    IsSaid(Call::LSTAT, EACCES, SOCKET + " cannot be looked at: Permission denied.", 1);
    IsSaid(Call::SOCKET, EMFILE, notMade + ": Too many open files.");
    IsSaid(Call::FCHMOD, EPERM, notMade + ": Operation not permitted.", 1);
    IsSaid(Call::BIND, EADDRINUSE, notMade + ": Address already in use.");
    IsSaid(Call::CHMOD, EPERM, notReady + ": Operation not permitted.");
    IsSaid(Call::LISTEN, EADDRINUSE, notReady + ": Address already in use.");
    IsSaid(Call::LSTAT, EACCES, notReady + ": Permission denied.", 2);
}

TEST_F(AFailingCallAtTheRegistration, IsLoggedForADeadServersSocket)
{
    LeaveDeadSocket();
    IsSaid(Call::SOCKET, EMFILE, "no socket to be had: Too many open files.");
    LeaveDeadSocket();
    IsSaid(Call::CONNECT, EAGAIN, "a live server holds " + SOCKET + " (Resource temporarily unavailable)");
    LeaveDeadSocket();
    IsSaid(Call::UNLINK, EACCES, "the socket of a dead server at " + SOCKET + " cannot be removed: Permission denied.");
}

TEST_F(AFailingCallAtTheRegistration, IsLoggedForTheLoop)
{
    IsSaid(Call::EVENT_NEW, ENOMEM, "cannot be registered: std::bad_alloc.");
    IsSaid(Call::EVENT_NEW, ENOMEM, "cannot be registered: std::bad_alloc.", 1);
    IsSaid(Call::EVENT_ADD, ENOMEM, "the event loop does not take its socket.");
    IsSaid(Call::EVENT_ADD, ENOMEM, "no timer can be made: Cannot allocate memory.", 1);
    IsSaid(Call::TIMERFD_CREATE, EMFILE, "no timer can be made: Too many open files.");
}

TEST_F(AFailingCallAtTheRegistration, IsRetriedWhenTheLockIsTakenOrTheWaitInterrupted)
{
    for (const int error : {EWOULDBLOCK, EINTR}) {
        const Fault lock(Call::FLOCK, error, 3);
        const Fault pause(Call::NANOSLEEP, EINTR, 2);
        const RunningServer server(SERVICE, g_testProtocol);
        EXPECT_TRUE(server.IsRegistered());
        EXPECT_TRUE(IsServed());
        EXPECT_TRUE(lock.HasStruck());
    }
    EXPECT_FALSE(log.HasPart("service["));
}

TEST_F(AFailingCallAtTheRegistration, DoesNotMatterIfADirectoryExistsThatHasNoStatus)
{
    const Fault fault(Call::STAT, EACCES);
    EXPECT_TRUE(RunningServer(SERVICE, g_testProtocol).IsRegistered());
    EXPECT_TRUE(fault.HasStruck());
}

TEST_F(AFailingCallAtTheRegistration, FindsALockThatNoOtherUserMayOpen)
{
    for (const mode_t mask : {0U, 0777U}) {
        const mode_t before = ::umask(mask);
        mode_t mode = 0;
        {
            const BeforeEach taken(Call::BIND, [&mode](int /*fd*/) {
                struct stat status {};
                mode = ::stat(LOCK.c_str(), &status) == 0 ? status.st_mode : 0;
            });
            EXPECT_TRUE(RunningServer(SERVICE, g_testProtocol).IsRegistered());
        }
        ::umask(before);
        EXPECT_EQ(mode, S_IFREG | 0600U);
    }
}

TEST_F(AFailingCallAtTheRegistration, DoesNotMatterWhenTheLockedFileHasLeftItsPath)
{
    LeaveLock();
    int rounds = 0;
    {
        const NoPauses hurry;
        const BeforeEach locking(Call::FLOCK, [&rounds](int /*fd*/) {
            if (++rounds <= 3) { // as if one holder releases the lock and another takes it at once
                ::unlink(LOCK.c_str());
                LeaveLock();
            }
        });
        EXPECT_TRUE(RunningServer(SERVICE, g_testProtocol).IsRegistered());
    }
    EXPECT_GE(rounds, 4);
    EXPECT_FALSE(Exists(LOCK));
}

TEST_F(AServiceThatWaitsForItsLock, IsServedOnceTheLockIsFree)
{
    ASSERT_TRUE(Begins());
    EXPECT_TRUE(ComesToBeServed());
    EXPECT_TRUE(log.HasInfo(std::string("service[") + SERVICE + "]: it can be reached now."));
    EXPECT_FALSE(Exists(LOCK));
}

TEST_F(AServiceThatWaitsForItsLock, LogsOnceAMinuteWhileItTriesEachSecond)
{
    const Fault lock(Call::FLOCK, EWOULDBLOCK,
                     105); // a hundred and one during the registration, then those of the loop
    const NoPauses hurry;
    const auto begin = std::chrono::steady_clock::now();
    const RunningServer server(SERVICE, g_testProtocol);
    EXPECT_TRUE(ComesToBeServed());
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(4900));
    EXPECT_EQ(log.CountPart("it cannot be reached yet"), 1);
}

TEST_F(AServiceThatWaitsForItsLock, LeavesANameThatALiveServerHasTakenMeanwhile)
{
    ASSERT_TRUE(Begins());
    const RunningServer other(SERVICE, g_testProtocol);
    ASSERT_TRUE(other.IsRegistered());
    EXPECT_TRUE(IsGivenUp());
    EXPECT_TRUE(log.HasPart("a live server holds " + SOCKET));
    EXPECT_TRUE(IsServed());
}

TEST_F(AServiceThatWaitsForItsLock, IsAbandonedWhenTheSystemRefusesTheLock)
{
    ASSERT_TRUE(Begins());
    const Fault fault(Call::BIND, EACCES);
    EXPECT_TRUE(IsGivenUp());
    EXPECT_TRUE(log.HasPart("no socket can be made at " + SOCKET + ": Permission denied."));
}

TEST_F(AServiceThatWaitsForItsLock, IsAbandonedWhenTheLoopDoesNotTakeItsSocket)
{
    ASSERT_TRUE(Begins());
    const Fault fault(Call::EVENT_ADD, ENOMEM, 1);
    EXPECT_TRUE(IsGivenUp());
    EXPECT_FALSE(Exists(SOCKET)) << "clients would wait at this socket forever";
}

TEST_F(AServiceThatWaitsForItsLock, IsRetriedWithoutMemory)
{
    ASSERT_TRUE(Begins());
    {
        const Fault fault(Call::EVENT_NEW, ENOMEM, 1);
        ASSERT_TRUE(
            Eventually(PATIENCE, [this] { return log.CountPart("it cannot be reached yet: std::bad_alloc.") == 1; }));
    }
    EXPECT_TRUE(ComesToBeServed());
}

TEST_F(AServiceThatWaitsForItsLock, IsNotRegisteredWithoutATimer)
{
    const NoPauses hurry;
    const Fault lock(Call::FLOCK, EWOULDBLOCK);
    bolt_event_mgr* const manager = bolt_event_mgr_new(0);
    for (const Call call : {Call::TIMERFD_CREATE, Call::EVENT_ADD, Call::TIMERFD_SETTIME}) {
        log.Restart();
        const Fault fault(call, ENOMEM, 1);
        EXPECT_NE(RegisterService(SERVICE, manager, g_testProtocol), 0);
        EXPECT_TRUE(log.HasPart("no timer can be made: Cannot allocate memory."));
    }
}
