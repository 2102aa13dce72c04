// The lock that a server takes to claim a service's name, and other files at the lock's path.
#include "support/eventually.h"
#include "support/running_server.h"
#include "support/service_environment.h"
#include "support/unix_client.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

using namespace std::chrono_literals;

namespace {

constexpr char SERVICE[] = "test.service";
constexpr char LOCK[] = "/mnt/bolt/.test.service.lock";
constexpr uid_t NOBODY = 65534;

bool Exists(const std::string& path)
{
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

/// Holds a lock on a file, as a process that does not serve would.
class Holder {
public:
    explicit Holder(const std::string& path, int flags = O_RDONLY | O_CREAT)
        : m_fd(::open(path.c_str(), flags | O_CLOEXEC, 0600))
    {
        EXPECT_EQ(::flock(m_fd, LOCK_EX | LOCK_NB), 0);
    }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;
    ~Holder() { Release(); }

    void Release()
    {
        if (m_fd >= 0) {
            ::close(std::exchange(m_fd, -1));
        }
    }

private:
    int m_fd;
};

class TheLockOnAName : public ::testing::Test {
protected:
    TheLockOnAName() { std::filesystem::create_directories("/mnt/bolt"); }
    ~TheLockOnAName() override
    {
        EXPECT_FALSE(Exists(LOCK)) << "it stays";
        EXPECT_EQ(::chmod("/mnt/bolt", 0755), 0);
    }

    static bool IsServed() { return UnixClient(SOCKET).Ask(PacketOf(ECHO, 0, "hello"), 10s).has_value(); }

    static bool ComesToBeServed()
    {
        return Eventually(20s, [] { return UnixClient(SOCKET).IsConnected(); }) && IsServed();
    }

    static bool IsTold(const std::string& obstacle)
    {
        return CountInLog("service[test.service]: it cannot be reached yet: " + std::string(LOCK) + " " + obstacle) ==
               1;
    }

    static void BecomeNobody()
    {
        OpenLog();
        if (::setgid(NOBODY) != 0 || ::setuid(NOBODY) != 0) {
            ::_exit(98);
        }
    }

    static const std::string SOCKET;
};

const std::string TheLockOnAName::SOCKET = SocketPath(SERVICE);

} // namespace

TEST_F(TheLockOnAName, IsNotTakenOnTheDirectoryThatEveryUserMayOpen)
{
    const Holder holder("/mnt/bolt", O_RDONLY | O_DIRECTORY);
    const RunningServer server(SERVICE, g_testProtocol);
    EXPECT_TRUE(IsServed());
    EXPECT_EQ(LogText().find("service["), std::string::npos) << LogText();
}

TEST_F(TheLockOnAName, HeldByAProcessThatDoesNotServeDelaysTheService)
{
    Holder holder(LOCK);
    RunningServer server(SERVICE, g_testProtocol);
    ASSERT_TRUE(server.IsRegistered());
    EXPECT_TRUE(IsTold("is locked by another process. The server tries again each second.")) << LogText();
    EXPECT_FALSE(Exists(SOCKET));
    holder.Release();
    EXPECT_TRUE(ComesToBeServed());
    EXPECT_EQ(server.End(), 0);
    EXPECT_FALSE(Exists(SOCKET));
}

TEST_F(TheLockOnAName, HeldByAProcessThatDoesNotServeDoesNotDelayTheEnd)
{
    const Holder holder(LOCK);
    RunningServer server(SERVICE, g_testProtocol);
    ASSERT_TRUE(server.IsRegistered());
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(server.End(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);
    ASSERT_EQ(::unlink(LOCK), 0);
}

TEST_F(TheLockOnAName, HeldByAnotherProcessDoesNotHideALiveServer)
{
    const RunningServer server(SERVICE, g_testProtocol);
    ASSERT_TRUE(server.IsRegistered());
    const Holder holder(LOCK);
    EXPECT_FALSE(RunningServer(SERVICE, g_testProtocol).IsRegistered());
    EXPECT_EQ(CountInLog("a live server holds /mnt/bolt/test.service"), 1) << LogText();
    ASSERT_EQ(::unlink(LOCK), 0);
}

TEST_F(TheLockOnAName, LeftByAKilledServerIsUsedAgain)
{
    std::ofstream{LOCK}.close();
    ASSERT_EQ(::chmod(LOCK, 0600), 0);
    const RunningServer server(SERVICE, g_testProtocol);
    EXPECT_TRUE(IsServed());
    EXPECT_EQ(LogText().find("service["), std::string::npos) << LogText();
}

TEST_F(TheLockOnAName, RemovesALinkInItsPlaceButNotTheTarget)
{
    std::ofstream("/mnt/mine") << "mine";
    const Holder holder("/mnt/mine");
    for (const bool isHard : {false, true}) {
        ASSERT_EQ(isHard ? ::link("/mnt/mine", LOCK) : ::symlink("/mnt/mine", LOCK), 0);
        const RunningServer server(SERVICE, g_testProtocol);
        EXPECT_TRUE(IsServed()) << LogText();
    }
    EXPECT_EQ(std::filesystem::file_size("/mnt/mine"), 4U);
    ASSERT_EQ(::unlink("/mnt/mine"), 0);
}

TEST_F(TheLockOnAName, RemovesAFifoInItsPlace)
{
    ASSERT_EQ(::mkfifo(LOCK, 0600), 0);
    const RunningServer server(SERVICE, g_testProtocol);
    EXPECT_TRUE(IsServed()) << LogText();
}

TEST_F(TheLockOnAName, WaitsForTheRemovalOfADirectoryInItsPlace)
{
    ASSERT_EQ(::mkdir(LOCK, 0700), 0);
    const RunningServer server(SERVICE, g_testProtocol);
    ASSERT_TRUE(server.IsRegistered());
    EXPECT_TRUE(IsTold("belongs to user " + std::to_string(::geteuid()) + " and cannot be removed: Is a directory."))
        << LogText();
    ASSERT_EQ(::rmdir(LOCK), 0);
    EXPECT_TRUE(ComesToBeServed());
}

TEST_F(TheLockOnAName, RemovesAFileThatAnotherUserHoldsLocked)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root, to make a file of another user";
    }
    ASSERT_EQ(::chmod("/mnt/bolt", 01777), 0);
    const Holder holder(LOCK);
    ASSERT_EQ(::chown(LOCK, NOBODY, NOBODY), 0);
    const auto begin = std::chrono::steady_clock::now();
    const RunningServer server(SERVICE, g_testProtocol);
    EXPECT_TRUE(IsServed()) << LogText();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 1s)
        << "it may belong to another user's server, which removes it itself";
}

TEST_F(TheLockOnAName, WaitsForTheRemovalOfAFileThatItMayNotRemove)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root, to become another user";
    }
    ASSERT_EQ(::chmod("/mnt/bolt", 01777), 0);
    std::ofstream{LOCK}.close();
    const ServerProcess server(SERVICE, g_testProtocol, {BecomeNobody, [](int result) { return result; }});
    ASSERT_TRUE(server.IsRegistered());
    EXPECT_TRUE(IsTold("belongs to user 0 and cannot be removed: Operation not permitted.")) << LogText();
    ASSERT_EQ(::unlink(LOCK), 0);
    EXPECT_TRUE(ComesToBeServed());
}
