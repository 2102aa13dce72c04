// A dead child that is still in the table. The kernel has freed its number, so another child may get it.

#include "unit/processes/monitor_held.h"
#include "unit/processes/pid_namespace.h"
#include "unit/processes/running_items.h"

#include "support/eventually.h"

#include <Poco/Exception.h>

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <set>
#include <string>
#include <thread>

namespace {

class ANumberUsedAgain : public RunningItems {
public:
    static bool IsZombie(int pid)
    {
        siginfo_t info{};
        return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT | WNOHANG) == 0 && info.si_pid == pid;
    }

    static bool BecomesZombie(int pid)
    {
        return Eventually(PATIENCE, [pid] { return IsZombie(pid); });
    }

    /// A bundle "radio" whose item gets the number.
    ActivatorPtr StartRadioAs(int pid) const
    {
        ActivatorPtr radio = Make(collection.Bundle("radio").Item("radiod", Sleeper()));
        PidNamespace::SetNextPid(pid);
        radio->Start();
        EXPECT_EQ(PidOf("radio.radiod"), pid);
        return radio;
    }

    void ExpectRadioIsSupervisedAs(int pid) const
    {
        EXPECT_EQ(PidOf("radio.radiod"), pid);
        EXPECT_EQ(::kill(pid, SIGTERM), 0);
        EXPECT_TRUE(IsLogged("radio.radiod[" + std::to_string(pid) + "] abnormal termination, signal: 15."));
        EXPECT_TRUE(IsLogged("radio.radiod relaunch done."));
    }
};

} // namespace

TEST_F(ANumberUsedAgain, StaysInTheTableWhenTheDeadChildIsForgotten)
{
    PidNamespace::Run([this] {
        Start(collection.Bundle("media").Item("mediad", ExitingAtTrigger(2)));
        const int pid = PidOf("media.mediad");
        MonitorHeld inThePauseOfTheRelaunch(Call::NANOSLEEP);
        PullTrigger();
        ASSERT_TRUE(inThePauseOfTheRelaunch.HasArrived());
        StartRadioAs(pid);
        inThePauseOfTheRelaunch.Release();
        ASSERT_TRUE(IsLogged("leaving exit status proc...."));
        ExpectRadioIsSupervisedAs(pid);
        EXPECT_FALSE(log.HasPart("not found."));
    });
}

TEST_F(ANumberUsedAgain, BeforeTheDeathIsHandledDoesNotMixThemUp)
{
    PidNamespace::Run([this] {
        Start(collection.Bundle("media").Item("mediad", ExitingAtTrigger(2)));
        const int pid = PidOf("media.mediad");
        MonitorHeld afterTheWait(Call::WRITE); // it logs the group that it waits for
        PullTrigger();
        ASSERT_TRUE(afterTheWait.HasArrived());
        StartRadioAs(pid);
        afterTheWait.Release();
        ASSERT_TRUE(IsLogged("leaving exit status proc...."));
        EXPECT_TRUE(log.HasPart("] need relaunch and now media.mediad is relaunching ..."));
        EXPECT_NE(PidOf("media.mediad"), 0);
        ExpectRadioIsSupervisedAs(pid);
    });
}

TEST_F(ANumberUsedAgain, IsNotKilledByAStopThatFoundTheDeadChild)
{
    PidNamespace::Run([this] {
        const ActivatorPtr media = Start(collection.Bundle("media").Item("mediad", Sleeper()));
        const int pid = PidOf("media.mediad");
        MonitorHeld inThePauseOfTheRelaunch(
            Call::NANOSLEEP); // the monitor holds the lock of the marks, and the stop waits for it
        ASSERT_EQ(::kill(pid, SIGTERM), 0);
        ASSERT_TRUE(inThePauseOfTheRelaunch.HasArrived());
        std::string refusal;
        std::thread stop([&] {
            try {
                media->Stop();
            } catch (const Poco::InvalidArgumentException& e) {
                refusal = e.message();
            }
        });
        EXPECT_TRUE(IsLogged("bundle[media] item[mediad] pid[" + std::to_string(pid) + "]"));
        EXPECT_TRUE(IsLogged("bundle[media] item[mediad] pid[" + std::to_string(PidOf("media.mediad")) + "]"));
        StartRadioAs(pid);
        inThePauseOfTheRelaunch.Release();
        stop.join();
        EXPECT_EQ(refusal, "bundle[media] activator stop :kill process[" + std::to_string(pid) + "] fail.");
        EXPECT_FALSE(IsZombie(pid));
        EXPECT_EQ(ProcessTable::Marks(), std::set<int>{});
        ExpectRadioIsSupervisedAs(pid);
    });
}

TEST_F(ANumberUsedAgain, IsStoppedForGoodAfterAStopOfTheDeadChild)
{
    PidNamespace::Run([this] {
        MonitorHeld beforeItsWait(Call::WAITID);
        const ActivatorPtr media = Start(collection.Bundle("media").Item("mediad", ExitingAtTrigger(6)));
        const int pid = PidOf("media.mediad");
        PullTrigger();
        ASSERT_TRUE(BecomesZombie(pid));
        media->Stop();
        EXPECT_EQ(ProcessTable::Marks(), std::set<int>{pid});
        MonitorHeld inThePauseOfTheRelaunch(Call::NANOSLEEP);
        beforeItsWait.Release();
        ASSERT_TRUE(inThePauseOfTheRelaunch.HasArrived());
        StartRadioAs(pid)->Stop();
        inThePauseOfTheRelaunch.Release();
        EXPECT_TRUE(IsLogged("normal stop radio.radiod..."));
        EXPECT_FALSE(log.HasPart("relaunch radio.radiod..."));
        EXPECT_TRUE(Eventually(PATIENCE, [] { return ProcessTable::Marks().empty(); }));
    });
}

TEST_F(ANumberUsedAgain, CausesNoFailedWaitWhenTheFirstChildWasReapedElsewhere)
{
    PidNamespace::Run([this] {
        MonitorHeld beforeItsWait(Call::WAITID);
        Start(collection.Bundle("media").Item("one", Exiting(0)).Item("two", Exiting(0)));
        const int one = PidOf("media.one");
        const int two = PidOf("media.two");
        ASSERT_TRUE(BecomesZombie(one) && BecomesZombie(two));
        MonitorHeld afterTheFirst(Call::WRITE);
        beforeItsWait.Release();
        ASSERT_TRUE(afterTheFirst.HasArrived());
        const int second = IsZombie(one) ? one : two;
        ASSERT_EQ(::syscall(SYS_wait4, second, nullptr, 0, nullptr), second);
        StartRadioAs(second);
        afterTheFirst.Release();
        EXPECT_FALSE(Eventually(std::chrono::milliseconds(300), [this] { return log.HasPart("waitpid fail"); }));
        ExpectRadioIsSupervisedAs(second);
    });
}

TEST_F(ANumberUsedAgain, DoesNotLeadARelaunchedChildIntoAnotherGroup)
{
    PidNamespace::Run([this] {
        Start(collection.Bundle("media").Item("mediad", ExitingAtTrigger(2)));
        const int pid = PidOf("media.mediad");
        MonitorHeld afterTheWait(Call::WRITE);
        PullTrigger();
        ASSERT_TRUE(afterTheWait.HasArrived());
        PidNamespace::SetNextPid(pid);
        const pid_t stranger = ::fork();
        if (stranger == 0) {
            ::setpgid(0, 0);
            ::pause();
        }
        ASSERT_EQ(stranger, pid);
        ASSERT_TRUE(Eventually(PATIENCE, [stranger] { return ::getpgid(stranger) == stranger; }));
        afterTheWait.Release();
        ASSERT_TRUE(IsLogged("media.mediad relaunch done."));
        const int next = PidOf("media.mediad");
        EXPECT_EQ(::getpgid(next), ::getpgrp());
        EXPECT_TRUE(log.HasError("setpgid pid " + std::to_string(next) + " to pgid 0 failed errno Invalid argument "));
        ASSERT_EQ(::kill(next, SIGTERM), 0);
        EXPECT_TRUE(IsLogged("media.mediad relaunch done.", 2));
    });
}
