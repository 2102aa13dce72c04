#include "group_leader.h"

#include "support/collection_builder.h"
#include "support/eventually.h"
#include "support/fault.h"

#include <Poco/Exception.h>

#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

using SystemServer::GroupLeader;
using SystemServer::LaunchInOwnGroup;

namespace {

bool IsBlocked(int signal)
{
    sigset_t mask;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return ::sigismember(&mask, signal) == 1;
}

class LaunchingInAnOwnGroup : public ::testing::Test {
public:
    /// Runs a shell command. Returns what it has written to the file "$1".
    std::string OutputOf(const std::string& command) const
    {
        const GroupLeader child = LaunchInOwnGroup("/bin/sh", {"-c", command, "sh", directory / "output"});
        EXPECT_EQ(child.groupError, 0);
        EXPECT_EQ(child.process.wait(), 0);
        return ReadFile(directory / "output");
    }

    /// The blocked signals of a shell. It reads them without a child: around each it blocks all of them for a moment.
    std::string BlockedInChild() const
    {
        return OutputOf("while read -r name value; do [ $name = SigBlk: ] && echo $value; done < /proc/$$/status > $1; "
                        ":");
    }

    const std::string none = "0000000000000000\n";
    TemporaryDirectory directory;
};

} // namespace

TEST_F(LaunchingInAnOwnGroup, MovesTheChildBeforeItBecomesTheCommand)
{
    const std::string output = OutputOf("echo $$ $(cut -d' ' -f5 /proc/$$/stat) > $1");
    std::istringstream words(output);
    std::string pid;
    std::string group;
    words >> pid >> group;
    EXPECT_EQ(group, pid);
}

TEST_F(LaunchingInAnOwnGroup, MovesItBeforeTheCallerContinues)
{
    for (int i = 0; i < 50; ++i) {
        const GroupLeader child = LaunchInOwnGroup("/bin/true", {});
        EXPECT_EQ(child.groupError, 0);
        EXPECT_EQ(::getpgid(child.process.id()), child.process.id());
        child.process.wait();
    }
}

TEST_F(LaunchingInAnOwnGroup, PassesTheArgumentsUnchanged)
{
    const GroupLeader child =
        LaunchInOwnGroup("/bin/sh", {"-c", R"(printf '%s|' "$@" > "$0")", directory / "output", "a b", "", "*"});
    child.process.wait();
    EXPECT_EQ(ReadFile(directory / "output"), "a b||*|");
}

TEST_F(LaunchingInAnOwnGroup, LogsWhyItCouldNotMoveTheChild)
{
    const Fault fault(Call::SETPGID, EPERM);
    const GroupLeader child = LaunchInOwnGroup("/bin/true", {});
    EXPECT_EQ(child.groupError, EPERM);
    child.process.wait();
}

TEST_F(LaunchingInAnOwnGroup, IgnoresARefusalForAChildInItsGroup)
{
    // The child moves itself first. Then the caller's attempt is refused, as for a child that has executed its command.
    std::optional<Fault> refusal;
    const BeforeEach move(Call::SETPGID, [&refusal](int pid) {
        if (pid != 0) {
            EXPECT_TRUE(Eventually(std::chrono::seconds(20), [pid] { return ::getpgid(pid) == pid; }));
            refusal.emplace(Call::SETPGID, EACCES);
        }
    });
    const GroupLeader child = LaunchInOwnGroup("/bin/true", {});
    EXPECT_TRUE(refusal);
    EXPECT_EQ(child.groupError, 0);
    child.process.wait();
}

TEST_F(LaunchingInAnOwnGroup, ThrowsWithoutAChild)
{
    const auto attempt = [] {
        const Fault fault(Call::LAUNCH, EAGAIN);
        LaunchInOwnGroup("/bin/true", {});
    };
    EXPECT_THROW(attempt(), Poco::SystemException);
    // The request for an own group does not remain for the next child of this thread.
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(::getpgrp() == ::getpid() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(LaunchingInAnOwnGroup, GivesTheChildTheSignalsOfTheStartOnAnyThread)
{
    const bool wasBlocked = IsBlocked(SIGUSR1);
    ASSERT_FALSE(wasBlocked);
    std::string mask;
    std::thread([&] {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
        mask = BlockedInChild();
    }).join();
    EXPECT_EQ(mask, none);
}

TEST_F(LaunchingInAnOwnGroup, UnblocksThePipeSignalThatTheFrameworkHasBlocked)
{
    EXPECT_TRUE(IsBlocked(SIGPIPE)) << "otherwise this test shows nothing";
    EXPECT_EQ(BlockedInChild(), none);
}
