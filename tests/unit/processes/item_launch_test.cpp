// The launch between fork and exec: the child waits until the server has recorded it. Each step can fail.

#include "unit/processes/running_items.h"

#include "support/eventually.h"
#include "support/fault.h"
#include "support/own_process.h"

#include <sys/prctl.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>

using namespace std::chrono_literals;

namespace {

class LaunchingAnItem : public RunningItems {};

} // namespace

TEST_F(LaunchingAnItem, FailsWithoutAPipe)
{
    const auto activator = Make(collection.Bundle("media").Item("mediad", Sleeper()));
    log.Restart();
    const Fault fault(Call::PIPE2, EMFILE);
    EXPECT_EQ(Refusal([&] { activator->Start(); }), "process[media.mediad] pipe fail.");
    EXPECT_TRUE(ProcessTable::Entries().empty());
    EXPECT_TRUE(log.Messages().empty());
}

TEST_F(LaunchingAnItem, FailsWithoutAProcessAndClosesThePipe)
{
    const auto activator = Make(collection.Bundle("media").Item("mediad", Sleeper()));
    log.Restart();
    const int before = OwnProcess::Descriptors();
    const Fault fault(Call::FORK, EAGAIN);
    EXPECT_EQ(Refusal([&] { activator->Start(); }), "process[media.mediad] fork fail.");
    EXPECT_EQ(OwnProcess::Descriptors(), before);
    EXPECT_TRUE(ProcessTable::Entries().empty());
    EXPECT_TRUE(log.Messages().empty());
}

TEST_F(LaunchingAnItem, FailsWithoutAMonitorAndLeavesNoChild)
{
    const auto activator = Make(collection.Bundle("media").Item("mediad", Sleeper()));
    {
        const Fault fault(Call::START_THREAD, EAGAIN);
        EXPECT_EQ(Refusal([&] { activator->Start(); }).rfind("process[media.mediad] monitor thread fail", 0), 0U);
    }
    EXPECT_TRUE(ProcessTable::Entries().empty());
    EXPECT_FALSE(ProcessTable::IsMonitorRunning());
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_FALSE(log.HasPart("execute binary"));
    activator->Start();
    EXPECT_EQ(ProcessTable::Entries().size(), 1U);
}

TEST_F(LaunchingAnItem, ContinuesWhenTheGroupCannotBeSet)
{
    {
        const Fault fault(Call::SETPGID, EPERM);
        Start(collection.Bundle("media").Copy("probe", PROBE_ITEM));
    }
    EXPECT_TRUE(log.HasError("setpgid pid " + std::to_string(PidOf("media.probe")) +
                             " to pgid 0 failed errno Operation not permitted "));
    EXPECT_EQ(Reported("probe", "arg").size(), 1U);
}

TEST_F(LaunchingAnItem, RetriesTheReleaseOfTheChild)
{
    {
        const Fault fault(Call::WRITE_BYTE, EAGAIN, 2);
        Start(collection.Bundle("media").Copy("probe", PROBE_ITEM));
    }
    EXPECT_EQ(log.Count("write pipe fail."), 2);
    EXPECT_TRUE(log.HasError("write pipe fail."));
    EXPECT_EQ(Reported("probe", "arg").size(), 1U);
}

TEST_F(LaunchingAnItem, LetsTheChildRetryAFailedRead)
{
    {
        const Fault fault(Call::READ_BYTE, EIO, 3);
        Start(collection.Bundle("media").Copy("probe", PROBE_ITEM));
    }
    EXPECT_EQ(log.Count("read pipe fail."), 3);
    EXPECT_TRUE(log.HasError("read pipe fail."));
    EXPECT_EQ(Reported("probe", "arg").size(), 1U);
}

TEST_F(LaunchingAnItem, LetsTheChildWaitForTheRightByte)
{
    {
        const BeforeEach release(Call::WRITE_BYTE, [](int fd) {
            char wrong[] = "xy";
            const iovec bytes{wrong, 2};
            EXPECT_EQ(::writev(fd, &bytes, 1), 2);
        });
        Start(collection.Bundle("media").Copy("probe", PROBE_ITEM));
    }
    EXPECT_TRUE(log.InOrder({"read readyChar fail.required[o] actual[x].", "read readyChar fail.required[o] actual[y].",
                             "wait for parent process ready done pgid is [" + std::to_string(::getpgrp()) + "]."}));
    EXPECT_TRUE(log.HasError("read readyChar fail.required[o] actual[x]."));
    EXPECT_EQ(Reported("probe", "arg").size(), 1U);
}

TEST_F(LaunchingAnItem, LetsTheChildWaitUntilItIsReleased)
{
    const BeforeEach release(Call::WRITE_BYTE, [this](int) {
        EXPECT_TRUE(IsLogged("wait for parent process ready..."));
        EXPECT_FALSE(Eventually(300ms, [this] { return log.HasPart("execute binary") || log.HasPart("fail"); }));
        EXPECT_EQ(ProcessTable::Entries().size(), 1U) << "the child was released before it was recorded";
        EXPECT_TRUE(ProcessTable::IsMonitorRunning());
    });
    Start(collection.Bundle("media").Item("mediad", Sleeper()));
    EXPECT_TRUE(log.HasPart("execute binary"));
}

TEST_F(LaunchingAnItem, SurvivesAChildThatDiesBeforeItIsReleased)
{
    // When the pipe's last reader is gone, a write would end this process by SIGPIPE, or fail forever.
    sigset_t pipeSignal;
    ::sigemptyset(&pipeSignal);
    ::sigaddset(&pipeSignal, SIGPIPE);
    ::pthread_sigmask(SIG_UNBLOCK, &pipeSignal, nullptr);
    std::atomic<int> victim{0};
    {
        const BeforeEach release(Call::WRITE_BYTE, [&victim](int) {
            if (victim == 0) {
                victim = PidOf("media.mediad");
                ::kill(victim, SIGKILL);
                EXPECT_TRUE(Eventually(PATIENCE, [&victim] { return ::kill(victim, 0) == -1; }))
                    << "the child is not reaped";
            }
        });
        Start(collection.Bundle("media").Item("mediad", Sleeper()));
        ASSERT_TRUE(IsLogged("media.mediad relaunch done."));
    }
    EXPECT_TRUE(log.HasInfo("media.mediad[" + std::to_string(victim) + "] abnormal termination, signal: 9."));
    EXPECT_TRUE(log.HasInfo("notify child process[" + std::to_string(victim) + "] done."));
    EXPECT_FALSE(log.HasPart("write pipe fail."));
    EXPECT_NE(PidOf("media.mediad"), victim);
}

TEST_F(LaunchingAnItem, EndsAChildWhoseServerIsGone)
{
    const std::string mark = outside / "mark";
    const std::string path = collection.Bundle("media").Item("mediad", "#!/bin/sh\ntouch " + mark + "\n").Write();
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0); // this process becomes the orphan's parent
    const pid_t server = ::fork();
    if (server == 0) {
        const BeforeEach release(Call::WRITE_BYTE, [](int) { ::_exit(0); });
        Launch(path + "/bin/mediad");
        ::_exit(1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(server, &status, 0), server);
    EXPECT_EQ(status, 0);
    pid_t orphan = 0;
    const bool hasEnded = Eventually(PATIENCE, [&] { return (orphan = ::waitpid(-1, &status, WNOHANG)) != 0; });
    if (!hasEnded) {
        for (const LogRecord& record : log.Records()) {
            if (record.message == "wait for parent process ready...") {
                ::kill(record.pid, SIGKILL);
                ::waitpid(record.pid, nullptr, 0);
            }
        }
    }
    ASSERT_TRUE(hasEnded);
    EXPECT_GT(orphan, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
    EXPECT_TRUE(log.HasError("read pipe fail."));
    EXPECT_LT(log.Count("read pipe fail."), 100);
    EXPECT_FALSE(Exists(mark));
}
