#include "support/eventually.h"
#include "support/running_server.h"
#include "support/service_environment.h"
#include "support/unix_client.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <csignal>
#include <fstream>
#include <list>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace {

constexpr char SERVICE[] = "test.service";
constexpr uid_t NOBODY = 65534;

bool IsServed(const std::string& path)
{
    return UnixClient(path).Ask(PacketOf(ECHO, 0, "hello"), 10s).has_value();
}

bool Exists(const std::string& path)
{
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

unsigned ModeOf(const std::string& path)
{
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0U;
}

/// Makes a socket at the path, without a server.
void LeaveDeadSocket(const std::string& path)
{
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(fd, 1), 0);
    ::close(fd);
}

class Registering : public ::testing::Test {
protected:
    /// Registers a service of that name in this process and ends it. Returns whether the registration worked.
    static bool Works(const std::string& service) { return RunningServer(service, g_testProtocol).IsRegistered(); }

    const std::string m_path = SocketPath(SERVICE);
};

/// Gives the process a user other than root and the test's.
void BecomeNobody()
{
    OpenLog();
    if (::setgid(NOBODY) != 0 || ::setuid(NOBODY) != 0) {
        ::_exit(98);
    }
}

struct Outcome {
    int result;
    bool isSocketThere;
};

/// Registers with the callbacks and ends the service again. Runs on a thread of its own, whose signal mask may change.
Outcome OutcomeOf(const bolt_server_ops& ops)
{
    Outcome outcome{};
    std::thread([&] {
        bolt_event_mgr* mgr = bolt_event_mgr_new(0);
        outcome.result = bolt_server_register(SERVICE, mgr, &ops, nullptr);
        outcome.isSocketThere = Exists(SocketPath(SERVICE));
        EndLoopOfThisThread();
        bolt_event_mgr_run(mgr, -1);
    }).join();
    return outcome;
}

/// Waits for the start signal, then tries to take the name. The winner serves until it is killed.
[[noreturn]] void CompeteForName(int startLine, int results)
{
    char word = 0;
    static_cast<void>(::read(startLine, &word, 1));
    bolt_event_mgr* mgr = bolt_event_mgr_new(0);
    const bool hasWon = RegisterService(SERVICE, mgr, g_testProtocol) == 0;
    word = hasWon ? 'w' : 'l';
    if (::write(results, &word, 1) != 1 || !hasWon) {
        ::_exit(0);
    }
    bolt_event_mgr_run(mgr, -1);
    ::_exit(0);
}

int WinnersAmong(int competitors)
{
    std::array<int, 2> startLine{};
    std::array<int, 2> results{};
    EXPECT_EQ(::pipe2(startLine.data(), O_CLOEXEC), 0);
    EXPECT_EQ(::pipe2(results.data(), O_CLOEXEC), 0);
    std::vector<pid_t> children;
    for (int i = 0; i < competitors; ++i) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::close(startLine[1]);
            ::close(results[0]);
            CompeteForName(startLine[0], results[1]);
        }
        children.push_back(child);
    }
    ::close(startLine[0]);
    ::close(startLine[1]);
    ::close(results[1]);
    int winners = 0;
    for (int i = 0; i < competitors; ++i) {
        char word = 0;
        EXPECT_EQ(::read(results[0], &word, 1), 1);
        winners += word == 'w' ? 1 : 0;
    }
    EXPECT_TRUE(IsServed(SocketPath(SERVICE)));
    for (const pid_t child : children) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
    ::close(results[0]);
    return winners;
}

} // namespace

TEST_F(Registering, MakesTheMissingServiceDirectory)
{
    ::rmdir("/mnt/bolt");
    const mode_t before = ::umask(077);
    const bool works = Works(SERVICE);
    ::umask(before);
    EXPECT_TRUE(works) << LogText();
    EXPECT_EQ(ModeOf("/mnt/bolt"), 0755U);
}

TEST_F(Registering, MakesASocketForTheUserAndTheGroupOnlyUnderAnyUmask)
{
    for (const mode_t mask : {0U, 022U, 077U, 0777U}) {
        const mode_t before = ::umask(mask);
        const RunningServer server(SERVICE, g_testProtocol);
        ::umask(before);
        ASSERT_TRUE(server.IsRegistered()) << LogText();
        EXPECT_EQ(ModeOf(m_path), 0660U);
        EXPECT_TRUE(IsServed(m_path));
    }
}

TEST_F(Registering, ReplacesTheSocketOfADeadServer)
{
    ASSERT_TRUE(Works(SERVICE));
    LeaveDeadSocket(m_path);
    const RunningServer server(SERVICE, g_testProtocol);
    EXPECT_TRUE(server.IsRegistered()) << LogText();
    EXPECT_TRUE(IsServed(m_path));
}

TEST_F(Registering, ReplacesTheSocketOfAKilledServer)
{
    {
        const ServerProcess killed(SERVICE, g_testProtocol);
        ASSERT_TRUE(killed.IsRegistered());
    }
    ASSERT_TRUE(Exists(m_path));
    const RunningServer server(SERVICE, g_testProtocol);
    EXPECT_TRUE(server.IsRegistered()) << LogText();
    EXPECT_TRUE(IsServed(m_path));
}

TEST_F(Registering, FailsIfALiveServerHoldsTheNameAndDoesNotDisturbIt)
{
    const RunningServer server(SERVICE, g_testProtocol);
    EXPECT_FALSE(Works(SERVICE));
    EXPECT_EQ(CountInLog("service[test.service]: a live server holds /mnt/bolt/test.service"), 1) << LogText();
    EXPECT_TRUE(IsServed(m_path));
    EXPECT_TRUE(Works("other.service"));
}

TEST_F(Registering, FailsIfALiveServerIsTooBusyToAccept)
{
    // A server that never accepts, with its queue full.
    ASSERT_TRUE(Works(SERVICE));
    const int busy = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    m_path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(busy, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(busy, 0), 0);
    const UnixClient first(m_path);
    EXPECT_FALSE(Works(SERVICE));
    EXPECT_TRUE(Exists(m_path));
    ::close(busy);
    ::unlink(m_path.c_str());
}

TEST_F(Registering, IsWonByExactlyOneOfTwentyAtTheSameMoment)
{
    // The winner of each round is killed and leaves its dead socket to the next.
    for (int round = 0; round < 10; ++round) {
        ASSERT_EQ(WinnersAmong(20), 1) << "round " << round;
        ASSERT_TRUE(Exists(m_path));
    }
}

TEST_F(Registering, DoesNotTouchAFileThatIsNoSocket)
{
    ASSERT_TRUE(Works(SERVICE));
    std::ofstream(m_path) << "mine";
    EXPECT_FALSE(Works(SERVICE));
    EXPECT_EQ(CountInLog("/mnt/bolt/test.service is in the way and is no socket: remove it."), 1) << LogText();
    EXPECT_TRUE(Exists(m_path));
    ::unlink(m_path.c_str());
}

TEST_F(Registering, FailsForANameThatCannotBeAFileName)
{
    for (const std::string name : {"", ".", "..", "a/b", "/etc/x"}) {
        EXPECT_FALSE(Works(name)) << name;
    }
    EXPECT_FALSE(Works(std::string(98, 'n')));
    EXPECT_TRUE(Works(std::string(97, 'n'))) << LogText();
}

TEST_F(Registering, FailsWithoutANameOrAnEventManager)
{
    EXPECT_NE(bolt_server_register("x", nullptr, nullptr, nullptr), 0);
    std::thread([] { EXPECT_NE(bolt_server_register(nullptr, bolt_event_mgr_new(0), nullptr, nullptr), 0); }).join();
    EXPECT_NE(bolt_event_mgr_run(nullptr, 0), 0);
}

TEST_F(Registering, NeedsNoCallbacks)
{
    const bolt_server_ops empty{nullptr, nullptr};
    const Outcome outcome = OutcomeOf(empty);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_TRUE(outcome.isSocketThere);
}

TEST_F(Registering, FailsAndLeavesNothingWhenTheServiceDoesNotStart)
{
    const bolt_server_ops refusing{[](bolt_server*, void*) { return 5; }, nullptr};
    const Outcome refused = OutcomeOf(refusing);
    EXPECT_NE(refused.result, 0);
    EXPECT_FALSE(refused.isSocketThere);
    EXPECT_EQ(CountInLog("service[test.service]: it does not start, its start callback returned 5."), 1) << LogText();

    const bolt_server_ops throwing{[](bolt_server*, void*) -> int { throw std::runtime_error("no"); }, nullptr};
    const Outcome thrown = OutcomeOf(throwing);
    EXPECT_NE(thrown.result, 0);
    EXPECT_FALSE(thrown.isSocketThere);
    EXPECT_TRUE(Works(SERVICE));
}

TEST_F(Registering, ReportsThatItsUserMayNotMakeALock)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root, to become another user";
    }
    ASSERT_TRUE(Works(SERVICE));
    const ServerProcess server(SERVICE, g_testProtocol, {BecomeNobody, [](int result) { return result; }});
    EXPECT_FALSE(server.IsRegistered());
    EXPECT_EQ(
        CountInLog("service[test.service]: no lock can be made at /mnt/bolt/.test.service.lock: Permission denied."), 1)
        << LogText();
}

TEST_F(Registering, ReportsTheMissingDirectoryAndItsFutureOwner)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root, to become another user";
    }
    ::rmdir("/mnt/bolt");
    const ServerProcess server(SERVICE, g_testProtocol, {BecomeNobody, [](int result) { return result; }});
    EXPECT_FALSE(server.IsRegistered());
    EXPECT_EQ(CountInLog("/mnt/bolt cannot be made: Permission denied. Make it, writable for user 65534."), 1)
        << LogText();
}

TEST_F(Registering, ReportsAnotherKindOfFileInTheDirectorysPlace)
{
    ::rmdir("/mnt/bolt");
    std::ofstream("/mnt/bolt") << "no directory";
    EXPECT_FALSE(Works(SERVICE));
    EXPECT_EQ(CountInLog("service[test.service]: /mnt/bolt cannot be made: Not a directory."), 1) << LogText();
    ASSERT_EQ(::unlink("/mnt/bolt"), 0);
}

TEST_F(Registering, AsAnotherUserServesRoot)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root, to become another user";
    }
    ASSERT_TRUE(Works(SERVICE));
    ASSERT_EQ(::chown("/mnt/bolt", NOBODY, NOBODY), 0);
    const ServerProcess server(SERVICE, g_testProtocol, {BecomeNobody, [](int result) { return result; }});
    ASSERT_TRUE(server.IsRegistered()) << LogText();
    EXPECT_TRUE(IsServed(m_path));
    ASSERT_EQ(::chown("/mnt/bolt", 0, 0), 0);
}
