#include "support/cpu_time.h"
#include "support/eventually.h"
#include "support/running_server.h"
#include "support/service_environment.h"
#include "support/unix_client.h"

#include <dirent.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <thread>

using namespace std::chrono_literals;

namespace {

constexpr char SERVICE[] = "test.service";

bool IsServed(const UnixClient& client)
{
    return client.Ask(PacketOf(ECHO, 0, "hello"), 10s).has_value();
}

bool Exists(const std::string& path)
{
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

/// The step of the program after the loop: it waits for a request to end. Returns 0 if the request is pending already.
int WaitForTerminationRequest(int result)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGQUIT);
    const timespec none{0, 0};
    return result == 0 && ::sigtimedwait(&signals, nullptr, &none) > 0 ? 0 : 1;
}

class TheLoop : public ::testing::Test {
protected:
    const std::string m_path = SocketPath(SERVICE);
};

class TheLoopOn : public TheLoop, public ::testing::WithParamInterface<int> {};

using Dispositions = std::array<struct sigaction, 65>;

Dispositions CurrentDispositions()
{
    Dispositions all{};
    for (int number = 1; number < 65; ++number) {
        ::sigaction(number, nullptr, &all[static_cast<std::size_t>(number)]);
    }
    return all;
}

bool AreAlike(const Dispositions& left, const Dispositions& right)
{
    for (std::size_t number = 1; number < left.size(); ++number) {
        if (left[number].sa_handler != right[number].sa_handler || left[number].sa_flags != right[number].sa_flags) {
            return false;
        }
    }
    return true;
}

/// Limits the process to that many more descriptors than it has.
void AllowDescriptors(rlim_t more)
{
    rlim_t open = 0;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir("/proc/self/fd"), ::closedir);
    while (::readdir(directory.get()) != nullptr) {
        ++open;
    }
    const rlimit limit{open + more, open + more};
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

} // namespace

TEST_P(TheLoopOn, EndsTheServiceAndTheWaitThatFollows)
{
    ServerProcess server(SERVICE, g_testProtocol, {[] {}, WaitForTerminationRequest});
    ASSERT_TRUE(server.IsRegistered()) << LogText();
    const UnixClient client(m_path);
    ASSERT_TRUE(IsServed(client));
    server.Signal(GetParam());
    EXPECT_EQ(server.Wait(), 0);
    EXPECT_TRUE(client.IsClosedByPeer(10s));
    EXPECT_FALSE(Exists(m_path));
}

TEST_P(TheLoopOn, EndsEvenIfTheProcessWasStartedWithTheSignalIgnored)
{
    const auto ignore = [] {
        for (const int number : {SIGINT, SIGQUIT, SIGTERM}) {
            struct sigaction ignored {};
            ignored.sa_handler = SIG_IGN;
            ::sigaction(number, &ignored, nullptr);
        }
    };
    ServerProcess server(SERVICE, g_testProtocol, {ignore, WaitForTerminationRequest});
    ASSERT_TRUE(server.IsRegistered()) << LogText();
    server.Signal(GetParam());
    EXPECT_EQ(server.Wait(), 0);
}

TEST_P(TheLoopOn, EndsAtOnceIfTheSignalCameBeforeItRuns)
{
    bool isOver = false;
    std::thread([&] {
        bolt_event_mgr* mgr = bolt_event_mgr_new(0);
        ::pthread_kill(::pthread_self(), GetParam());
        isOver = bolt_event_mgr_run(mgr, 20000) == 0 && WaitForTerminationRequest(0) == 0;
    }).join();
    EXPECT_TRUE(isOver);
}

INSTANTIATE_TEST_SUITE_P(EndingSignal, TheLoopOn, ::testing::Values(SIGINT, SIGTERM, SIGQUIT), [](const auto& signal) {
    return signal.param == SIGINT ? "Int" : signal.param == SIGTERM ? "Term" : "Quit";
});

TEST_F(TheLoop, BlocksTheThreeSignalsAndChangesNoDisposition)
{
    bool areAlike = false;
    bool areBlocked = false;
    std::thread([&] {
        const Dispositions before = CurrentDispositions();
        sigset_t expected;
        ::pthread_sigmask(SIG_BLOCK, nullptr, &expected);
        for (const int number : {SIGINT, SIGQUIT, SIGTERM}) {
            sigaddset(&expected, number);
        }
        bolt_event_mgr* mgr = bolt_event_mgr_new(0);
        bolt_event_mgr_run(mgr, 0);
        areAlike = AreAlike(before, CurrentDispositions());
        sigset_t mask;
        ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        areBlocked = true;
        for (int number = 1; number < 65; ++number) {
            areBlocked = areBlocked && sigismember(&mask, number) == sigismember(&expected, number);
        }
    }).join();
    EXPECT_TRUE(areAlike);
    EXPECT_TRUE(areBlocked);
}

TEST_F(TheLoop, RemovesItsSocketAtItsEnd)
{
    RunningServer server(SERVICE, g_testProtocol);
    ASSERT_TRUE(Exists(m_path));
    EXPECT_EQ(server.End(), 0);
    EXPECT_FALSE(Exists(m_path));
}

TEST_F(TheLoop, LeavesAnotherFileInItsSocketsPlaceAtItsEnd)
{
    RunningServer server(SERVICE, g_testProtocol);
    ASSERT_EQ(::unlink(m_path.c_str()), 0);
    const RunningServer other(SERVICE, g_testProtocol);
    ASSERT_TRUE(other.IsRegistered());
    EXPECT_EQ(server.End(), 0);
    EXPECT_TRUE(IsServed(UnixClient(m_path)));
}

TEST_F(TheLoop, ReturnsAfterItsTimeLimitAndKeepsTheService)
{
    std::thread([this] {
        bolt_event_mgr* mgr = bolt_event_mgr_new(0);
        ASSERT_EQ(RegisterService(SERVICE, mgr, g_testProtocol), 0);
        for (const auto limit : {0ms, 150ms}) {
            const auto begin = std::chrono::steady_clock::now();
            EXPECT_EQ(bolt_event_mgr_run(mgr, static_cast<int>(limit.count())), 0);
            EXPECT_GE(std::chrono::steady_clock::now() - begin, limit);
            EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);
        }
        const UnixClient client(m_path);
        ASSERT_TRUE(client.Send(PacketOf(ECHO, 0, "hello")));
        std::optional<std::string> reply;
        EXPECT_TRUE(Eventually(10s, [&] {
            bolt_event_mgr_run(mgr, 10);
            reply = client.Receive(0ms);
            return reply.has_value();
        }));
        EndLoopOfThisThread();
        EXPECT_EQ(bolt_event_mgr_run(mgr, -1), 0);
        EXPECT_FALSE(Exists(m_path));
    }).join();
}

TEST_F(TheLoop, RefusesToRunOrToTakeAServiceOnceItHasEnded)
{
    std::thread([] {
        bolt_event_mgr* mgr = bolt_event_mgr_new(0);
        EndLoopOfThisThread();
        EXPECT_EQ(bolt_event_mgr_run(mgr, -1), 0);
        EXPECT_NE(bolt_event_mgr_run(mgr, 0), 0);
        EXPECT_NE(RegisterService(SERVICE, mgr, g_testProtocol), 0);
    }).join();
}

TEST_F(TheLoop, StopsTheServiceAtItsEndButNotAfterItsTimeLimit)
{
    static std::atomic<int> stops{0};
    static const bolt_server_ops ops{nullptr, [](bolt_server*, void*) { ++stops; }};
    std::thread([] {
        bolt_event_mgr* mgr = bolt_event_mgr_new(0);
        ASSERT_EQ(bolt_server_register(SERVICE, mgr, &ops, nullptr), 0);
        EXPECT_EQ(bolt_event_mgr_run(mgr, 10), 0);
        EXPECT_EQ(stops, 0);
        EndLoopOfThisThread();
        EXPECT_EQ(bolt_event_mgr_run(mgr, -1), 0);
        EXPECT_EQ(stops, 1);
    }).join();
}

TEST_F(TheLoop, ServesSeveralServicesAtOnce)
{
    std::thread([] {
        bolt_event_mgr* mgr = bolt_event_mgr_new(0);
        ASSERT_EQ(RegisterService("one", mgr, g_testProtocol), 0);
        ASSERT_EQ(RegisterService("two", mgr, g_testProtocol), 0);
        const UnixClient one(SocketPath("one"));
        const UnixClient two(SocketPath("two"));
        one.Send(PacketOf(ECHO, 0, "1"));
        two.Send(PacketOf(ECHO, 0, "2"));
        EXPECT_EQ(bolt_event_mgr_run(mgr, 200), 0);
        EXPECT_EQ(one.Receive(0ms).value_or("        none").substr(8), "1");
        EXPECT_EQ(two.Receive(0ms).value_or("        none").substr(8), "2");
        EndLoopOfThisThread();
        EXPECT_EQ(bolt_event_mgr_run(mgr, -1), 0);
    }).join();
}

TEST_F(TheLoop, LetsNoProgramInheritADescriptor)
{
    const ServerProcess server(SERVICE, g_testProtocol, {RememberDescriptors, [](int result) { return result; }});
    ASSERT_TRUE(server.IsRegistered()) << LogText();
    const UnixClient client(m_path);
    const auto reply = client.Ask(PacketOf(INSPECT, 0, ""), 10s);
    ASSERT_TRUE(reply);
    EXPECT_EQ(HeaderOf(*reply).status, 0);
}

TEST_F(TheLoop, WaitsQuietlyWithoutADescriptorAndContinuesWithOne)
{
    static const bolt_protocol_ops protocol{[](bolt_connection* /*conn*/) {
                                                static bool isLimited = false;
                                                if (!isLimited) {
                                                    isLimited = true;
                                                    AllowDescriptors(2);
                                                }
                                            },
                                            g_testProtocol.message};
    const ServerProcess server(SERVICE, protocol, {OpenLog, [](int result) { return result; }});
    ASSERT_TRUE(server.IsRegistered()) << LogText();
    std::list<UnixClient> clients;
    clients.emplace_back(m_path);
    ASSERT_TRUE(IsServed(clients.front()));
    for (int i = 0; i < 20; ++i) {
        clients.emplace_back(m_path);
        ASSERT_TRUE(clients.back().IsConnected());
    }
    ASSERT_TRUE(Eventually(10s, [] { return CountInLog("a connection cannot be accepted: Too many open files") > 0; }))
        << LogText();

    const auto before = CpuTimeOf(server.Pid());
    EXPECT_FALSE(clients.front().IsClosedByPeer(1s));
    EXPECT_LT(CpuTimeOf(server.Pid()) - before, 300ms) << "the loop spins";
    EXPECT_LE(CountInLog("a connection cannot be accepted"), 4);
    EXPECT_TRUE(IsServed(clients.front()));

    while (!clients.empty()) {
        ASSERT_TRUE(IsServed(clients.front())) << clients.size() << " to go";
        clients.pop_front();
    }
}

TEST_F(TheLoop, LeavesHalfOfTheDescriptorsToTheProgram)
{
    static constexpr rlim_t limit = 40;
    const auto bound = [] {
        OpenLog();
        rlimit limits{};
        ::getrlimit(RLIMIT_NOFILE, &limits);
        limits.rlim_cur = limit;
        ::setrlimit(RLIMIT_NOFILE, &limits);
    };
    const ServerProcess server(SERVICE, g_testProtocol, {bound, [](int result) { return result; }});
    ASSERT_TRUE(server.IsRegistered()) << LogText();
    std::list<UnixClient> clients;
    for (rlim_t i = 0; i < limit / 2; ++i) {
        clients.emplace_back(m_path);
        ASSERT_TRUE(IsServed(clients.back())) << i;
    }
    EXPECT_EQ(CountInLog("a connection cannot be accepted"), 0) << LogText();
    const UnixClient late(m_path);
    ASSERT_TRUE(late.Send(PacketOf(ECHO, 0, "late")));
    ASSERT_TRUE(Eventually(10s, [] {
        return CountInLog("a connection cannot be accepted: 20 are open, as many as may be.") == 1;
    })) << LogText();
    EXPECT_TRUE(IsServed(clients.front()));
    EXPECT_FALSE(late.Receive(100ms));
    clients.pop_back();
    EXPECT_EQ(late.Receive(10s).value_or("        none").substr(8), "late");
}

TEST_F(TheLoop, AdmitsNoMoreThanHalfOfTheDescriptorsWhenAllComeAtOnce)
{
    std::thread([this] {
        rlimit before{};
        ::getrlimit(RLIMIT_NOFILE, &before);
        const rlimit few{40, before.rlim_max};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
        bolt_event_mgr* mgr = bolt_event_mgr_new(0);
        ASSERT_EQ(RegisterService(SERVICE, mgr, g_testProtocol), 0);
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
        std::list<UnixClient> clients;
        int served = 0;
        const auto serve = [&] {
            bolt_event_mgr_run(mgr, 10);
            served += static_cast<int>(std::count_if(clients.begin(), clients.end(), [](const UnixClient& client) {
                return client.Receive(0ms).has_value();
            }));
            return served;
        };
        // First some that are served. Then more than there is room for, all waiting when the loop looks.
        for (const int count : {10, 20}) {
            for (int i = 0; i < count; ++i) {
                clients.emplace_back(m_path);
                ASSERT_TRUE(clients.back().Send(PacketOf(ECHO, 0, "hello")));
            }
            EXPECT_TRUE(Eventually(10s, [&] { return serve() >= std::min(20, static_cast<int>(clients.size())); }));
        }
        for (int i = 0; i < 20; ++i) {
            serve();
        }
        EXPECT_EQ(served, 20);
        EndLoopOfThisThread();
        bolt_event_mgr_run(mgr, -1);
    }).join();
}
