// Calls that fail in the loop, in connections, messages and the log.
#include "support/eventually.h"
#include "support/fault_allocation.h"
#include "support/private_mnt.h"
#include "unit/faults/failing_service.h"

#include <bolt.h>
#include <zq_log.h>

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <string>

using namespace std::chrono_literals;

namespace {

[[maybe_unused]] const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

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
        EXPECT_TRUE(IsServed()) << "the server is damaged";
        EXPECT_EQ(server.End(), 0);
    }

    /// Whether the connection of a new client is closed and the record logged; no record when the text is empty.
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

TEST_F(AFailingCallOfTheLoop, EndsItAndRemovesItsSocket)
{
    bolt_event_mgr* const manager = bolt_event_mgr_new(0);
    ASSERT_EQ(RegisterService(SERVICE, manager, g_testProtocol), 0);
    for (const auto& [call, time] : {std::pair{Call::EVENT_BASE_LOOPEXIT, 0}, std::pair{Call::TIMERFD_CREATE, 10},
                                     std::pair{Call::TIMERFD_SETTIME, 10}, std::pair{Call::EVENT_ADD, 10}}) {
        const Fault fault(call, ENOMEM);
        EXPECT_EQ(bolt_event_mgr_run(manager, time), -1);
        EXPECT_TRUE(fault.HasStruck());
    }
    EXPECT_TRUE(Exists(SOCKET)) << "the loop has not run, and can still run";
    const Fault fault(Call::EVENT_BASE_DISPATCH, ENOMEM);
    EXPECT_EQ(bolt_event_mgr_run(manager, -1), -1);
    EXPECT_FALSE(Exists(SOCKET));
}

TEST_F(AFailingCallOfTheLoop, DoesNotKeepItRunningWhenItsTimeIsOver)
{
    bolt_event_mgr* const manager = bolt_event_mgr_new(0);
    ASSERT_EQ(RegisterService(SERVICE, manager, g_testProtocol), 0);
    const Fault fault(Call::EVENT_BASE_LOOPEXIT, ENOMEM);
    EXPECT_EQ(bolt_event_mgr_run(manager, 10), 0);
    EXPECT_TRUE(fault.HasStruck());
    EXPECT_TRUE(Exists(SOCKET));
}

TEST_F(AFailingCallOfTheLoop, LosesNoSignal)
{
    RunningServer server(SERVICE, g_testProtocol);
    ASSERT_TRUE(server.IsRegistered());
    const Fault read(Call::READ, EINTR, 2);
    const Fault raised(Call::RAISE, EAGAIN);
    const Fault looked(Call::LSTAT, EIO); // the socket file stays then, and the next server replaces it
    EXPECT_EQ(server.End(), 0);
    EXPECT_TRUE(read.HasStruck());
    EXPECT_TRUE(raised.HasStruck());
    EXPECT_TRUE(Exists(SOCKET));
}

TEST_F(AFailingCallOfAConnection, IsRetriedWhereThatIsEnough)
{
    for (const int error : {EINTR, EAGAIN, ECONNABORTED}) {
        const Fault fault(Call::ACCEPT, error, 1);
        EXPECT_TRUE(IsServed()) << error;
        EXPECT_TRUE(fault.HasStruck());
    }
    for (const int error : {EINTR, EAGAIN}) {
        const Fault receiving(Call::RECV, error, 1);
        const Fault sending(Call::SEND, error, 1, 1); // the client's own call comes first and succeeds
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
    EXPECT_LT(log.CountPart("a connection cannot be accepted"), 3) << "at most one record a second";
}

TEST_F(AFailingCallOfAConnection, DoesNotStopTheServiceFromAccepting)
{
    {
        const Fault accept(Call::ACCEPT, EMFILE, 1);
        const Fault pause(Call::TIMERFD_SETTIME, ENOMEM, 1);
        EXPECT_TRUE(IsServed()) << "the pause never begins";
        EXPECT_TRUE(pause.HasStruck());
    }
    const Fault accept(Call::ACCEPT, EMFILE, 1);
    const Fault pause(Call::EVENT_ADD, ENOMEM, 1);
    EXPECT_TRUE(IsServed()) << "the pause never ends";
    EXPECT_TRUE(pause.HasStruck());
}

TEST_F(AFailingCallOfAConnection, RefusesAPeerWhoseUserIsUnknown)
{
    const Fault fault(Call::GETSOCKOPT, ENOBUFS, 1);
    CostsTheConnection("is refused: only user");
}

TEST_F(AFailingCallOfAConnection, ClosesItWhenTheLoopCannotAddIt)
{
    {
        const Fault fault(Call::EVENT_NEW, ENOMEM, 1);
        CostsTheConnection("a peer cannot be accepted (out of memory), its connection is closed");
    }
    ASSERT_TRUE(Eventually(PATIENCE, [] { return IsServed(); }));
    const auto second = std::chrono::steady_clock::now() + 1100ms; // one record of each kind a second
    EXPECT_TRUE(Eventually(PATIENCE, [&] { return std::chrono::steady_clock::now() > second; }));
    const Fault fault(Call::EVENT_ADD, ENOMEM, 1);
    CostsTheConnection("a peer cannot be accepted (the event loop does not take it), its connection is closed");
}

TEST_F(AFailingCallOfAConnection, ClosesItWhenNothingIsReceived)
{
    const Fault fault(Call::RECV, ECONNRESET, 1);
    CostsTheConnection("");
}

TEST_F(AFailingCallOfAConnection, ClosesItWhenAReplyCannotBeSent)
{
    {
        const Fault fault(Call::SEND, EPIPE, 1, 1);
        CostsTheConnection("");
    }
    const Fault fault(Call::SEND, ENOBUFS, 1, 1);
    CostsTheConnection("a peer cannot be sent a reply (No buffer space available), its connection is closed");
}

TEST_F(AFailingCallOfAConnection, ClosesItWhenAReplyCannotWait)
{
    const Fault sending(Call::SEND, EAGAIN, 1, 1);
    const Fault waiting(Call::EVENT_ADD, ENOMEM, 1, 1); // the first call takes the connection itself
    CostsTheConnection("a peer cannot be answered (the event loop does not take it), its connection is closed");
}

TEST_F(AFailingCallOfAConnection, ClosesNoOtherWhenMemoryRunsOut)
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

TEST_F(AFailingCallOfTheLog, LosesAtMostOneRecordAndCountsIt)
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
        EXPECT_EQ(errno, EXDEV) << "a record changes errno, which the caller may log next";
    }
    write("with room");
    EXPECT_FALSE(log.Has("without room"));
    EXPECT_TRUE(log.InOrder({"1 earlier records are lost: no room for them, or nobody has read them.", "with room"}));
    {
        const Fault fault(Call::WRITE, 0, 1);
        write("with half the room");
    }
    write("whole again");
    EXPECT_TRUE(log.Has("whole again")) << "it is in the line of the cut-off record";
}
