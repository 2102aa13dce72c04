#include "own_process.h"
#include "platform/running_server.h"
#include "support/collection_builder.h"
#include "support/eventually.h"
#include "support/fault.h"
#include "support/fault_allocation.h"
#include "support/log_capture.h"
#include "support/private_mnt.h"
#include "support/unix_client.h"

#include <bolt.h>
#include <lumo.h>
#include <zq_log.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

using namespace std::chrono_literals;

namespace {

[[maybe_unused]] const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

constexpr auto PATIENCE = 30s;
constexpr char SERVICE[] = "test.service";
const std::string SOCKET = std::string("/mnt/bolt/") + SERVICE;

/// A socket that nobody listens on any more.
void LeaveDeadSocket()
{
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    SOCKET.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::close(fd);
}

class AFailingCall : public ::testing::Test {
public:
    AFailingCall() { std::filesystem::create_directories("/mnt/bolt"); }

    static bool IsServed(const std::string& content = "hello")
    {
        const auto reply = UnixClient(SOCKET).Ask(PacketOf(ECHO, 0, content), PATIENCE);
        return reply && reply->substr(sizeof(lumo_header)) == content;
    }

    const RealSending real;
    LogCapture log;
};

class AFailingCallAtTheRegistration : public AFailingCall {
public:
    /// Registers while the call fails. It has to say why, to leave nothing, and to work the next time.
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

class AFailingCallOfTheLoop : public AFailingCall {
public:
    /// Makes an event manager while the call fails.
    void LeavesNone(Call call, int error, const std::string& record)
    {
        SCOPED_TRACE(record + " call " + std::to_string(static_cast<int>(call)));
        const int descriptors = OwnProcess::Descriptors();
        log.Restart();
        {
            const Fault fault(call, error, 1);
            EXPECT_EQ(bolt_event_mgr_new(0), nullptr);
        }
        EXPECT_TRUE(log.HasPart(record));
        EXPECT_EQ(OwnProcess::Descriptors(), descriptors);
    }
};

class AFailingCallOfAConnection : public AFailingCall {
public:
    AFailingCallOfAConnection() { EXPECT_TRUE(server.IsRegistered()); }
    ~AFailingCallOfAConnection() override
    {
        EXPECT_TRUE(IsServed()) << "the server has suffered";
        EXPECT_EQ(server.End(), 0);
    }

    /// Whether a new client's connection is closed, with that record or without any.
    void CostsTheConnection(const std::string& record)
    {
        const UnixClient client(SOCKET);
        static_cast<void>(client.SendWithoutWaiting(PacketOf(ECHO, 0, "hello")));
        EXPECT_TRUE(client.IsClosedByPeer(PATIENCE));
        if (record.empty()) {
            EXPECT_FALSE(log.HasPart("service["));
        } else {
            EXPECT_TRUE(Eventually(PATIENCE, [&] { return log.CountPart(record) != 0; })) << record;
        }
    }

    RunningServer server{SERVICE, g_testProtocol};
};

class AFailingCallOfAMessage : public AFailingCall {};
class AFailingCallOfTheLog : public AFailingCall {};

} // namespace

TEST_F(AFailingCallAtTheRegistration, IsSaidWhereTheDirectoryIsConcerned)
{
    std::filesystem::remove_all("/mnt/bolt");
    IsSaid(Call::MKDIR, EROFS, "/mnt/bolt cannot be made: Read-only file system.");
    std::filesystem::remove_all("/mnt/bolt");
    IsSaid(Call::CHMOD, EPERM, "/mnt/bolt cannot be made: Operation not permitted.");
    IsSaid(Call::OPEN, EMFILE, "/mnt/bolt cannot be locked: Too many open files.");
    IsSaid(Call::FLOCK, ENOLCK, "/mnt/bolt cannot be locked: No locks available.");
}

TEST_F(AFailingCallAtTheRegistration, IsSaidWhereTheSocketIsConcerned)
{
    const std::string notMade = "no socket can be made at " + SOCKET;
    const std::string notReady = "the socket at " + SOCKET + " cannot be made ready";
    IsSaid(Call::LSTAT, EACCES, SOCKET + " cannot be looked at: Permission denied.");
    IsSaid(Call::SOCKET, EMFILE, notMade + ": Too many open files.");
    IsSaid(Call::FCHMOD, EPERM, notMade + ": Operation not permitted.");
    IsSaid(Call::BIND, EADDRINUSE, notMade + ": Address already in use.");
    IsSaid(Call::CHMOD, EPERM, notReady + ": Operation not permitted.");
    IsSaid(Call::LISTEN, EADDRINUSE, notReady + ": Address already in use.");
    IsSaid(Call::LSTAT, EACCES, notReady + ": Permission denied.", 1);
}

TEST_F(AFailingCallAtTheRegistration, IsSaidWhereADeadServersSocketIsConcerned)
{
    LeaveDeadSocket();
    IsSaid(Call::SOCKET, EMFILE, "no socket to be had: Too many open files.");
    LeaveDeadSocket();
    IsSaid(Call::CONNECT, EAGAIN, "a live server holds " + SOCKET + " (Resource temporarily unavailable)");
    LeaveDeadSocket();
    IsSaid(Call::UNLINK, EACCES, "the socket of a dead server at " + SOCKET + " cannot be removed: Permission denied.");
}

TEST_F(AFailingCallAtTheRegistration, IsSaidWhereTheLoopIsConcerned)
{
    IsSaid(Call::EVENT_NEW, ENOMEM, "cannot be registered: std::bad_alloc.");
    IsSaid(Call::EVENT_NEW, ENOMEM, "cannot be registered: std::bad_alloc.", 1);
    IsSaid(Call::EVENT_ADD, ENOMEM, "the event loop does not take its socket.");
}

TEST_F(AFailingCallAtTheRegistration, IsTriedAgainWhereTheLockIsTakenOrTheWaitInterrupted)
{
    for (const int error : {EWOULDBLOCK, EINTR}) {
        const Fault lock(Call::FLOCK, error, 3);
        const Fault pause(Call::NANOSLEEP, EINTR, 2);
        EXPECT_TRUE(RunningServer(SERVICE, g_testProtocol).IsRegistered());
        EXPECT_TRUE(lock.HasStruck());
    }
    const NoPauses hurry;
    const Fault lock(Call::FLOCK, EWOULDBLOCK);
    EXPECT_FALSE(RunningServer(SERVICE, g_testProtocol).IsRegistered());
    EXPECT_TRUE(log.HasPart("/mnt/bolt cannot be locked: Resource temporarily unavailable."));
}

TEST_F(AFailingCallAtTheRegistration, DoesNotMatterWhereADirectoryIsThatCanNotBeLookedAt)
{
    const Fault fault(Call::STAT, EACCES);
    EXPECT_TRUE(RunningServer(SERVICE, g_testProtocol).IsRegistered());
    EXPECT_TRUE(fault.HasStruck());
}

TEST_F(AFailingCallOfTheLoop, LeavesNoEventManager)
{
    LeavesNone(Call::EVENT_CONFIG_NEW, ENOMEM, "no event loop can be made: Cannot allocate memory.");
    LeavesNone(Call::EVENT_CONFIG_SET_FLAG, ENOMEM, "no event loop can be made: Cannot allocate memory.");
    LeavesNone(Call::EVENT_BASE_NEW, EMFILE, "no event loop can be made: Too many open files.");
    LeavesNone(Call::SIGNAL_MASK, EINVAL, "signals cannot be taken by the event loop: Invalid argument.");
    LeavesNone(Call::SIGNALFD, EMFILE, "signals cannot be taken by the event loop: Too many open files.");
    LeavesNone(Call::EVENT_NEW, ENOMEM, "no event manager can be made: std::bad_alloc.");
    LeavesNone(Call::EVENT_ADD, ENOMEM, "signals cannot be taken by the event loop: Cannot allocate memory.");
    EXPECT_NE(bolt_event_mgr_new(0), nullptr);
}

TEST_F(AFailingCallOfTheLoop, EndsItAndTakesItsSocketAway)
{
    bolt_event_mgr* const manager = bolt_event_mgr_new(0);
    ASSERT_EQ(RegisterService(SERVICE, manager, g_testProtocol), 0);
    {
        const Fault fault(Call::EVENT_BASE_LOOPEXIT, ENOMEM);
        EXPECT_EQ(bolt_event_mgr_run(manager, 10), -1);
    }
    EXPECT_TRUE(Exists(SOCKET)) << "it was not run and can be";
    const Fault fault(Call::EVENT_BASE_DISPATCH, ENOMEM);
    EXPECT_EQ(bolt_event_mgr_run(manager, -1), -1);
    EXPECT_FALSE(Exists(SOCKET));
}

TEST_F(AFailingCallOfTheLoop, LosesNoSignal)
{
    RunningServer server(SERVICE, g_testProtocol);
    ASSERT_TRUE(server.IsRegistered());
    const Fault read(Call::READ, EINTR, 2);
    const Fault raised(Call::RAISE, EAGAIN);
    const Fault looked(Call::LSTAT, EIO); // the socket then stays, for the next server to replace
    EXPECT_EQ(server.End(), 0);
    EXPECT_TRUE(read.HasStruck());
    EXPECT_TRUE(raised.HasStruck());
    EXPECT_TRUE(Exists(SOCKET));
}

TEST_F(AFailingCallOfAConnection, IsTriedAgainWhereThatIsEnough)
{
    for (const int error : {EINTR, EAGAIN, ECONNABORTED}) {
        const Fault fault(Call::ACCEPT, error, 1);
        EXPECT_TRUE(IsServed()) << error;
        EXPECT_TRUE(fault.HasStruck());
    }
    for (const int error : {EINTR, EAGAIN}) {
        const Fault receiving(Call::RECV, error, 1);
        const Fault sending(Call::SEND, error, 1, 1); // the client's goes through before
        EXPECT_TRUE(IsServed()) << error;
        EXPECT_TRUE(receiving.HasStruck());
        EXPECT_TRUE(sending.HasStruck());
    }
    EXPECT_FALSE(log.HasPart("service["));
}

TEST_F(AFailingCallOfAConnection, LetsItWaitUntilThereAreDescriptors)
{
    const auto begin = std::chrono::steady_clock::now();
    const Fault fault(Call::ACCEPT, EMFILE, 3);
    EXPECT_TRUE(IsServed());
    // A pause of 100 ms follows each failure; the loop's clock is a coarse one.
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 250ms);
    EXPECT_TRUE(log.HasPart("a connection cannot be accepted: Too many open files."));
    EXPECT_LT(log.CountPart("a connection cannot be accepted"), 3) << "no more than one a second";
}

TEST_F(AFailingCallOfAConnection, LeavesNoServiceDeafThatWaits)
{
    {
        const Fault accept(Call::ACCEPT, EMFILE, 1);
        const Fault pause(Call::EVENT_ADD, ENOMEM, 1);
        EXPECT_TRUE(IsServed()) << "the pause never begins";
        EXPECT_TRUE(pause.HasStruck());
    }
    const Fault accept(Call::ACCEPT, EMFILE, 1);
    const Fault pause(Call::EVENT_ADD, ENOMEM, 1, 1);
    EXPECT_TRUE(IsServed()) << "the pause never ends";
    EXPECT_TRUE(pause.HasStruck());
}

TEST_F(AFailingCallOfAConnection, RefusesWhoseUserIsNotToBeHad)
{
    const Fault fault(Call::GETSOCKOPT, ENOBUFS, 1);
    CostsTheConnection("is refused: only user");
}

TEST_F(AFailingCallOfAConnection, CostsItWhereTheLoopDoesNotTakeIt)
{
    {
        const Fault fault(Call::EVENT_NEW, ENOMEM, 1);
        CostsTheConnection("a peer cannot be accepted (out of memory), its connection is closed");
    }
    ASSERT_TRUE(Eventually(PATIENCE, [] { return IsServed(); }));
    const auto second = std::chrono::steady_clock::now() + 1100ms; // a record of a kind a second
    EXPECT_TRUE(Eventually(PATIENCE, [&] { return std::chrono::steady_clock::now() > second; }));
    const Fault fault(Call::EVENT_ADD, ENOMEM, 1);
    CostsTheConnection("a peer cannot be accepted (the event loop does not take it), its connection is closed");
}

TEST_F(AFailingCallOfAConnection, CostsItWhereNothingIsReceived)
{
    const Fault fault(Call::RECV, ECONNRESET, 1);
    CostsTheConnection("");
}

TEST_F(AFailingCallOfAConnection, CostsItWhereAReplyIsNotTaken)
{
    {
        const Fault fault(Call::SEND, EPIPE, 1, 1);
        CostsTheConnection("");
    }
    const Fault fault(Call::SEND, ENOBUFS, 1, 1);
    CostsTheConnection("a peer cannot be sent a reply (No buffer space available), its connection is closed");
}

TEST_F(AFailingCallOfAConnection, CostsItWhereAReplyCanNotWait)
{
    const Fault sending(Call::SEND, EAGAIN, 1, 1);
    const Fault waiting(Call::EVENT_ADD, ENOMEM, 1, 1); // the connection itself is taken before
    CostsTheConnection("a peer cannot be answered (the event loop does not take it), its connection is closed");
}

TEST_F(AFailingCallOfAConnection, CostsNoMoreThanItForWantOfMemory)
{
    const std::string content(20000, 'x');
    for (const auto lasting : {AllocationFault::Lasting::ONCE, AllocationFault::Lasting::FOR_GOOD}) {
        bool hasStruck = true;
        long round = 0;
        for (; hasStruck && !HasFailure(); ++round) {
            {
                const UnixClient client(SOCKET);
                const std::string packet = PacketOf(ECHO, 0, content);
                const AllocationFault fault(round, lasting, AllocationFault::Of::OTHER_THREADS);
                const auto reply = client.Ask(packet, PATIENCE);
                EXPECT_TRUE(reply.has_value() || client.IsClosedByPeer(PATIENCE)) << round;
                EXPECT_TRUE(reply.has_value() || fault.HasStruck());
                hasStruck = fault.HasStruck();
            }
            EXPECT_TRUE(IsServed(content)) << round;
        }
        EXPECT_GT(round, 2);
    }
    EXPECT_TRUE(log.HasPart("(out of memory), its connection is closed"));
}

TEST_F(AFailingCallOfAMessage, LosesTheMessageAndNothingElse)
{
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
    lumo_message* const msg = lumo_message_new(0);
    ASSERT_EQ(lumo_content_add(msg, "hello", 5, 0), 0);
    {
        const Fault fault(Call::WRITE, EINTR, 3);
        EXPECT_EQ(lumo_message_sendfd(msg, ends[1]), 0);
        EXPECT_TRUE(fault.HasStruck());
    }
    for (const int error : {EAGAIN, EPIPE, 0}) {
        const Fault fault(Call::WRITE, error, 1);
        EXPECT_EQ(lumo_message_sendfd(msg, ends[1]), -1) << error;
    }
    {
        const std::string longContent(1000, 'x');
        const AllocationFault fault(0, AllocationFault::Lasting::FOR_GOOD);
        EXPECT_EQ(lumo_message_new(0), nullptr);
        EXPECT_EQ(lumo_content_add(msg, longContent.data(), 1000, 0), -1);
    }
    void* data = nullptr;
    int length = 0;
    EXPECT_EQ(lumo_content(msg, &data, &length), 0);
    EXPECT_EQ(length, 5);
    lumo_message_put(msg);
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST_F(AFailingCallOfTheLog, LosesARecordAtMostAndNotThatItIsLost)
{
    const auto write = [](const char* text) { ZQ_WriteLog(4, 1, 0, 0, __FILE__, __LINE__, "%s", text); };
    {
        const Fault fault(Call::WRITE, EINTR, 3);
        write("interrupted");
        EXPECT_TRUE(fault.HasStruck());
    }
    EXPECT_TRUE(log.Has("interrupted"));
    {
        const Fault fault(Call::WRITE, ENOSPC, 1);
        errno = EXDEV;
        write("without room");
        EXPECT_EQ(errno, EXDEV) << "a record changes what its caller is about to log";
    }
    write("with room");
    EXPECT_FALSE(log.Has("without room"));
    EXPECT_TRUE(log.InOrder({"1 earlier records are lost: no room for them, or nobody has read them.", "with room"}));
    {
        const Fault fault(Call::WRITE, 0, 1);
        write("with half the room");
    }
    write("whole again");
    EXPECT_TRUE(log.Has("whole again")) << "it stands in the line of the one that was cut off";
}
