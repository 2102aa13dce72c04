#include "unit/processes/running_items.h"

#include "child_process.h"
#include "support/eventually.h"
#include "support/fault.h"
#include "support/own_process.h"
#include "unit/processes/monitor_held.h"

#include <Poco/Exception.h>
#include <Poco/Util/Application.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <thread>
#include <utility>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

class StartingItems : public RunningItems {
public:
    template <class Operation> static std::string Refusal(const Operation& operation)
    {
        try {
            operation();
        } catch (const Poco::InvalidArgumentException& e) {
            EXPECT_EQ(e.code(), 0);
            return e.message();
        }
        return "";
    }
};

class StoppingItems : public StartingItems {};

/// What this process is set to, in the words of /proc.
std::string OwnStatus(const std::string& field)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(field, 0) == 0) {
            return line.substr(line.find('\t') + 1);
        }
    }
    return "";
}

/// A signal mask in the words of /proc.
std::string Shown(const sigset_t& mask)
{
    unsigned long long bits = 0;
    for (int signal = 1; signal <= 64; ++signal) {
        if (::sigismember(&mask, signal) == 1) {
            bits |= 1ULL << (signal - 1);
        }
    }
    std::ostringstream text;
    text << std::hex << std::setw(16) << std::setfill('0') << bits;
    return text.str();
}

/// The mask that this process was started with: what it has, without what the framework's library blocked.
std::string MaskAtStart()
{
    sigset_t mask;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    ::sigdelset(&mask, SIGPIPE);
    return Shown(mask);
}

/// What every child is given: the descriptors that are open for good.
std::vector<std::string> InheritableDescriptors()
{
    std::vector<std::string> open;
    for (int fd = 0; fd < 4096; ++fd) {
        const int flags = ::fcntl(fd, F_GETFD);
        if (flags != -1 && (flags & FD_CLOEXEC) == 0) {
            open.push_back(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)).string());
        }
    }
    return open;
}

} // namespace

TEST_F(StartingItems, NeedsNothingForABundleWithoutItems)
{
    const CallCounter forks(Call::FORK);
    const auto activator = Start(collection.Bundle("media"));
    EXPECT_EQ(forks.Count(), 0);
    EXPECT_FALSE(ProcessTable::IsMonitorRunning());
}

TEST_F(StartingItems, RunsABinaryWithItsBareNameForArgumentZero)
{
    Start(collection.Bundle("media").Copy("probe", PROBE_ITEM));
    EXPECT_EQ(Reported("probe", "arg"), std::vector<std::string>{"probe"});
    const std::string path = collection / "media/./bin/probe";
    EXPECT_TRUE(log.HasInfo("execute binary[" + path + "].excute command:{probe}"));
}

TEST_F(StartingItems, RunsAScriptByTheShell)
{
    const std::string report = outside / "report";
    const std::string path = collection.Bundle("media").Item("x.sh").Write() + "/./bin/x.sh";
    std::filesystem::create_directory(collection / "media/bin");
    WriteFile(path, "readlink /proc/$$/exe > " + report + "; tr '\\0' '\\n' < /proc/$$/cmdline >> " + report +
                        "; exec sleep 60\n"); // neither to be executed nor with an interpreter line
    Start(collection.Bundle("media").Item("x.sh"));
    const std::string shell = std::filesystem::canonical("/bin/sh").string();
    EXPECT_TRUE(Eventually(PATIENCE, [&] { return ReadFile(report) == shell + "\nsh\n" + path + "\n"; }))
        << ReadFile(report);
    EXPECT_TRUE(log.HasInfo("execute shell script[" + path + "].excute command:{sh " + path + "}"));
}

TEST_F(StartingItems, RunsALibraryByTheLoaderOfTheConfiguration)
{
    std::filesystem::copy_file(PROBE_ITEM, outside / "dyn_lib_process_loader");
    std::filesystem::create_directory(outside / "reports");
    ::setenv("PROBE_DIR", (outside / "reports").c_str(), 1);
    Start(collection.Bundle("media").Library("lib.so", "run_it", THREAD_ITEM));
    const std::string path = collection / "media/./bin/lib.so";
    EXPECT_EQ(Reported("reports/dyn_lib_process_loader", "arg"),
              (std::vector<std::string>{"dyn_lib_process_loader", "-f", path, "-e", "run_it"}));
    EXPECT_TRUE(log.HasInfo("load dyn lib[" + outside.Path().string() +
                            "/dyn_lib_process_loader].excute command:{dyn_lib_process_loader -f " + path +
                            " -e run_it}"));
}

TEST_F(StartingItems, LooksForTheLoaderInItsOwnDirectoryWithoutAConfiguration)
{
    Poco::Util::Application::instance().config().remove("global.server_submodule_dir");
    Start(collection.Bundle("media").Library("lib.so", "run_it", THREAD_ITEM));
    EXPECT_TRUE(log.HasInfo("load dyn lib[/usr/app/bin//dyn_lib_process_loader].excute command:{dyn_lib_process_loader "
                            "-f " +
                            (collection / "media/./bin/lib.so") + " -e run_it}"));
}

TEST_F(StartingItems, ComparesEndingsExactly)
{
    const std::string path = collection.Bundle("media").Copy("x.SO", PROBE_ITEM).Copy("x.bash", PROBE_ITEM).Write();
    Launch(path + "/bin/x.SO");
    Launch(path + "/bin/x.bash");
    EXPECT_EQ(Reported("x.SO", "arg"), std::vector<std::string>{"x.SO"});
    EXPECT_EQ(Reported("x.bash", "arg"), std::vector<std::string>{"x.bash"});
}

TEST_F(StartingItems, LogsItsStepsInOrder)
{
    Start(collection.Bundle("media").Item("mediad", Sleeper()));
    const std::string pid = std::to_string(PidOf("media.mediad"));
    const std::string path = collection / "media/./bin/mediad";
    const std::string releasing = "parent process ready.notify child process[" + pid + "]...";
    EXPECT_TRUE(log.InOrder(
        {"child process create, start monitor thread.", releasing, "notify child process[" + pid + "] done."}));
    const std::string released = "wait for parent process ready done pgid is [" + std::to_string(::getpgrp()) + "].";
    EXPECT_TRUE(log.InOrder(
        {"wait for parent process ready...", released, "execute binary[" + path + "].excute command:{mediad}"}));
    EXPECT_TRUE(log.InOrder({releasing, released})) << "executed before it was recorded";
    for (const LogRecord& record : log.Records()) {
        if (record.message == released || record.message == "wait for parent process ready...") {
            EXPECT_EQ(std::to_string(record.pid), pid);
        }
    }
}

TEST_F(StartingItems, RecordsWhatARelaunchNeeds)
{
    const std::string path = collection.Bundle("media").Item("mediad", Sleeper()).Write();
    Start(collection.Bundle("media").Item("mediad"));
    const auto entries = ProcessTable::Entries();
    ASSERT_EQ(entries.size(), 1U);
    const auto& info = entries.begin()->second;
    EXPECT_EQ(info.bundleName, "media");
    EXPECT_EQ(info.processName, "media.mediad");
    EXPECT_EQ(info.execPath, path + "/./bin/mediad");
    EXPECT_EQ(info.itemName, "mediad");
    EXPECT_EQ(info.entryFunc, "");
}

TEST_F(StartingItems, TakesASecondForEachAndMovesAllIntoTheServersGroup)
{
    const auto before = Clock::now();
    Start(collection.Bundle("media").Copy("one", PROBE_ITEM).Copy("two", PROBE_ITEM).Copy("three", PROBE_ITEM));
    EXPECT_GE(Clock::now() - before, 3s);
    EXPECT_TRUE(log.InOrder({"execute binary[" + (collection / "media/./bin/one") + "].excute command:{one}",
                             "execute binary[" + (collection / "media/./bin/two") + "].excute command:{two}",
                             "execute binary[" + (collection / "media/./bin/three") + "].excute command:{three}"}));
    for (const char* const name : {"one", "two", "three"}) {
        EXPECT_EQ(Reported(name, "pgid"), std::vector<std::string>{std::to_string(::getpgrp())});
        EXPECT_EQ(Reported(name, "pid"), std::vector<std::string>{std::to_string(PidOf("media." + std::string(name)))});
    }
    EXPECT_FALSE(log.HasPart("setpgid"));
}

TEST_F(StartingItems, PausesItsWholeSecondThoughSignalsCome)
{
    struct sigaction ignoring {};
    ignoring.sa_handler = [](int) {};
    ASSERT_EQ(::sigaction(SIGALRM, &ignoring, nullptr), 0);
    const itimerval often{{0, 20'000}, {0, 20'000}};
    ASSERT_EQ(::setitimer(ITIMER_REAL, &often, nullptr), 0);
    const auto before = Clock::now();
    Start(collection.Bundle("media").Item("mediad", Sleeper()));
    EXPECT_GE(Clock::now() - before, 1s);
    const itimerval never{};
    ASSERT_EQ(::setitimer(ITIMER_REAL, &never, nullptr), 0);
    EXPECT_FALSE(log.HasPart("waitpid fail"));
}

TEST_F(StartingItems, FailsWithoutAPipe)
{
    const auto activator = Make(collection.Bundle("media").Item("mediad", Sleeper()));
    log.Restart();
    const Fault fault(Call::PIPE2, EMFILE);
    EXPECT_EQ(Refusal([&] { activator->Start(); }), "process[media.mediad] pipe fail.");
    EXPECT_TRUE(ProcessTable::Entries().empty());
    EXPECT_TRUE(log.Messages().empty());
}

TEST_F(StartingItems, FailsWithoutAProcessAndClosesThePipe)
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

TEST_F(StartingItems, LeavesItemsBeforeAFailureRunningAndStartsNoneAfterIt)
{
    const auto activator =
        Make(collection.Bundle("media").Item("one", Sleeper()).Item("two", Sleeper()).Item("three", Sleeper()));
    const Fault fault(Call::FORK, EAGAIN, 1, 1);
    EXPECT_EQ(Refusal([&] { activator->Start(); }), "process[media.two] fork fail.");
    EXPECT_EQ(ProcessTable::Entries().size(), 1U);
    EXPECT_EQ(::kill(PidOf("media.one"), 0), 0);
}

TEST_F(StartingItems, FailsWithoutAMonitorAndLeavesNoChild)
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

TEST_F(StartingItems, ContinuesWhenTheGroupCannotBeSet)
{
    {
        const Fault fault(Call::SETPGID, EPERM);
        Start(collection.Bundle("media").Copy("probe", PROBE_ITEM));
    }
    EXPECT_TRUE(log.HasError("setpgid pid " + std::to_string(PidOf("media.probe")) +
                             " to pgid 0 failed errno Operation not permitted "));
    EXPECT_EQ(Reported("probe", "arg").size(), 1U);
}

TEST_F(StartingItems, RetriesTheReleaseOfTheChild)
{
    {
        const Fault fault(Call::WRITE_BYTE, EAGAIN, 2);
        Start(collection.Bundle("media").Copy("probe", PROBE_ITEM));
    }
    EXPECT_EQ(log.Count("write pipe fail."), 2);
    EXPECT_TRUE(log.HasError("write pipe fail."));
    EXPECT_EQ(Reported("probe", "arg").size(), 1U);
}

TEST_F(StartingItems, LetsTheChildRetryAFailedRead)
{
    {
        const Fault fault(Call::READ_BYTE, EIO, 3);
        Start(collection.Bundle("media").Copy("probe", PROBE_ITEM));
    }
    EXPECT_EQ(log.Count("read pipe fail."), 3);
    EXPECT_TRUE(log.HasError("read pipe fail."));
    EXPECT_EQ(Reported("probe", "arg").size(), 1U);
}

TEST_F(StartingItems, LetsTheChildWaitForTheRightByte)
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

TEST_F(StartingItems, LetsTheChildWaitUntilItIsReleased)
{
    const BeforeEach release(Call::WRITE_BYTE, [this](int) {
        EXPECT_TRUE(IsLogged("wait for parent process ready..."));
        std::this_thread::sleep_for(300ms);
        EXPECT_FALSE(log.HasPart("execute binary"));
        EXPECT_FALSE(log.HasPart("fail"));
        EXPECT_EQ(ProcessTable::Entries().size(), 1U) << "released before it is recorded";
        EXPECT_TRUE(ProcessTable::IsMonitorRunning());
    });
    Start(collection.Bundle("media").Item("mediad", Sleeper()));
    EXPECT_TRUE(log.HasPart("execute binary"));
}

TEST_F(StartingItems, SurvivesAChildThatDiesBeforeItIsReleased)
{
    // With the pipe's last reader gone a write would end this process by SIGPIPE, or fail for ever.
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
                EXPECT_TRUE(Eventually(PATIENCE, [&victim] { return ::kill(victim, 0) == -1; })) << "not reaped";
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

TEST_F(StartingItems, EndsAChildWhoseServerIsGone)
{
    const std::string mark = outside / "mark";
    const std::string path = collection.Bundle("media").Item("mediad", "#!/bin/sh\ntouch " + mark + "\n").Write();
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0); // the orphan comes to this process
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

TEST_F(StartingItems, LogsInTheChildWhyItCannotBeExecuted)
{
    Start(collection.Bundle("media").Item("mediad"));
    ASSERT_TRUE(MonitorEnds());
    EXPECT_TRUE(log.HasError("execl fail.errno[2]."));
    EXPECT_TRUE(log.HasPart("normal termination, exit status: 1."));
    EXPECT_FALSE(log.HasPart("relaunch done."));
    log.Restart();
    const std::string path = collection.Bundle("media").Item("mediad", "").Write() + "/bin/mediad";
    std::filesystem::permissions(path, std::filesystem::perms::owner_read);
    Launch(path);
    EXPECT_TRUE(log.HasError("execl fail.errno[13]."));
}

TEST_F(StartingItems, EndsTheChildAbnormallyForATooShortName)
{
    const std::string path = collection.Bundle("media").Write() + "/bin/ab";
    Launch(path);
    ASSERT_TRUE(Eventually(PATIENCE, [this] { return log.HasPart("media.ab["); }));
    EXPECT_TRUE(log.HasPart("abnormal termination, signal: 6."));
    EXPECT_TRUE(IsLogged("relaunch media.ab..."));
    EXPECT_FALSE(log.HasPart("excute command"));
}

TEST_F(StartingItems, GivesTheChildNoDescriptorOfTheServers)
{
    const auto inheritable = InheritableDescriptors();
    const std::string path = collection.Bundle("media").Copy("one", PROBE_ITEM).Copy("two", PROBE_ITEM).Write();
    {
        // The second is forked while the pipe of the first is open.
        std::atomic<bool> isFirst{true};
        const BeforeEach release(Call::WRITE_BYTE, [&](int) {
            if (isFirst.exchange(false)) {
                std::thread([&] { Launch(path + "/bin/two"); }).join();
            }
        });
        Launch(path + "/bin/one");
    }
    EXPECT_EQ(Reported("one", "fd"), inheritable);
    EXPECT_EQ(Reported("two", "fd"), inheritable);
}

TEST_F(StartingItems, GivesTheChildTheSignalsThatTheServerWasStartedWith)
{
    ASSERT_NE(::signal(SIGHUP, SIG_IGN), SIG_ERR);
    const std::string mask = MaskAtStart();
    const std::string path = collection.Bundle("media").Copy("main", PROBE_ITEM).Copy("thread", PROBE_ITEM).Write();
    Launch(path + "/bin/main");
    std::thread([&] {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
        Launch(path + "/bin/thread");
    }).join();
    for (const char* const name : {"main", "thread"}) {
        EXPECT_EQ(Reported(name, "SigBlk"), std::vector<std::string>{mask}) << name;
        EXPECT_EQ(Reported(name, "SigIgn"), std::vector<std::string>{OwnStatus("SigIgn")}) << name;
    }
    EXPECT_EQ(mask.substr(12), "0000") << "the test itself was started with signals blocked";
    ASSERT_NE(::signal(SIGHUP, SIG_DFL), SIG_ERR);
}

TEST_F(StartingItems, GivesARelaunchedChildTheSameSignals)
{
    ::setenv("PROBE_THEN", "2", 1);
    const std::string path = collection.Bundle("media").Copy("probe", PROBE_ITEM).Write();
    Launch(path + "/bin/probe");
    ASSERT_TRUE(IsLogged("media.probe relaunch done."));
    EXPECT_EQ(Reported("probe", "SigBlk"), std::vector<std::string>{MaskAtStart()});
    EXPECT_TRUE(IsLogged("entering exit status proc....", 2)) << "the report is not a relaunched child's";
}

TEST_F(StartingItems, LetsAChildOfAThreadThatBlocksTheSignalDieOfIt)
{
    const std::string path = collection.Bundle("media").Item("mediad", Sleeper()).Write();
    std::thread([&] {
        const SystemServer::TerminationSignalsBlocked blocked;
        Launch(path + "/bin/mediad");
    }).join();
    const int pid = PidOf("media.mediad");
    ASSERT_EQ(::kill(pid, SIGTERM), 0);
    EXPECT_TRUE(IsLogged("media.mediad[" + std::to_string(pid) + "] abnormal termination, signal: 15."));
}

TEST_F(StartingItems, GivesTheChildTheDescriptorLimitThatTheServerWasStartedWith)
{
    rlimit start{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &start), 0);
    const rlimit few{128, start.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    Start(collection.Bundle("media").Copy("probe", PROBE_ITEM));
    EXPECT_EQ(Reported("probe", "limit"), std::vector<std::string>{std::to_string(start.rlim_cur)});
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &start), 0);
}

TEST_F(StartingItems, LeavesTheItemsRunningWhenTheActivatorIsReleased)
{
    auto activator = Start(collection.Bundle("media").Item("mediad", Sleeper()));
    const int pid = PidOf("media.mediad");
    activator.reset();
    EXPECT_EQ(::kill(pid, 0), 0);
    EXPECT_EQ(PidOf("media.mediad"), pid);
    EXPECT_FALSE(log.HasPart("termination"));
}

TEST_F(StartingItems, IsPossibleOnManyThreadsAtOnce)
{
    constexpr int threads = 6;
    std::vector<std::thread> launchers;
    std::vector<std::string> paths;
    for (int i = 0; i < threads; ++i) {
        const std::string name = "b" + std::to_string(i);
        paths.push_back(collection.Bundle(name).Item("app", i % 2 == 0 ? Exiting(0) : Sleeper()).Write() + "/bin/app");
    }
    launchers.reserve(threads);
    for (int i = 0; i < threads; ++i) {
        launchers.emplace_back([&paths, i] { Launch(paths[static_cast<std::size_t>(i)], "b" + std::to_string(i)); });
    }
    for (std::thread& launcher : launchers) {
        launcher.join();
    }
    EXPECT_TRUE(Eventually(PATIENCE, [] { return ProcessTable::Entries().size() == threads / 2; }));
    EXPECT_EQ(log.CountPart("normal termination, exit status: 0."), threads / 2);
    EXPECT_FALSE(log.HasPart("non-bundle process"));
    EXPECT_FALSE(log.HasPart("pid fail"));
}

TEST_F(StoppingItems, KillsThemAllWithoutARelaunch)
{
    const auto activator = Start(collection.Bundle("media").Item("one", Sleeper()).Item("two", Sleeper()));
    const std::string one = std::to_string(PidOf("media.one"));
    const std::string two = std::to_string(PidOf("media.two"));
    activator->Stop();
    std::vector<std::string> records{"bundle[media] item[one] pid[" + one + "]",
                                     "bundle[media] item[two] pid[" + two + "]"};
    if (std::stoi(one) > std::stoi(two)) { // numbers begin anew when they have all been used
        std::swap(records[0], records[1]);
    }
    EXPECT_TRUE(log.InOrder(records));
    EXPECT_TRUE(log.HasInfo("bundle[media] item[one] pid[" + one + "]"));
    ASSERT_TRUE(MonitorEnds());
    for (const std::string& name : {"media.one[" + one + "]", "media.two[" + two + "]"}) {
        EXPECT_TRUE(
            log.InOrder({name + " abnormal termination, signal: 9.", name + " abnormal termination, signal: 9."}))
            << "in the log and in the language log";
    }
    EXPECT_TRUE(log.HasInfo("normal stop media.one..."));
    EXPECT_TRUE(log.HasInfo("normal stop media.two..."));
    EXPECT_FALSE(log.HasPart("relaunch"));
    EXPECT_TRUE(ProcessTable::Marks().empty());
    EXPECT_TRUE(ProcessTable::Entries().empty());
}

TEST_F(StoppingItems, NeitherWaitsForThemNorRemovesThemFromTheTable)
{
    MonitorHeld beforeItsWait(Call::WAITID);
    const auto activator = Start(collection.Bundle("media").Item("mediad", Sleeper()));
    const int pid = PidOf("media.mediad");
    activator->Stop();
    EXPECT_EQ(PidOf("media.mediad"), pid);
    EXPECT_EQ(ProcessTable::Marks(), std::set<int>{pid});
    beforeItsWait.Release();
    EXPECT_TRUE(MonitorEnds());
    EXPECT_TRUE(log.Has("normal stop media.mediad..."));
}

TEST_F(StoppingItems, DoesNothingWhenAllHaveEnded)
{
    const auto activator = Start(collection.Bundle("media").Item("mediad", Exiting(0)));
    ASSERT_TRUE(MonitorEnds());
    log.Restart();
    activator->Stop();
    EXPECT_TRUE(log.HasError("bundle process already exit."));
    EXPECT_EQ(log.Messages().size(), 1U);
}

TEST_F(StoppingItems, DoesNotTouchOtherBundles)
{
    const auto media = Start(collection.Bundle("media").Item("app", Sleeper()));
    const auto other = Start(collection.Bundle("media2").Item("app", Sleeper()));
    const int otherPid = PidOf("media2.app");
    media->Stop();
    ASSERT_TRUE(IsLogged("normal stop media.app..."));
    EXPECT_EQ(::kill(otherPid, 0), 0);
    EXPECT_TRUE(Eventually(PATIENCE, [] { return ProcessTable::Entries().size() == 1; }));
    EXPECT_EQ(PidOf("media2.app"), otherPid);
    EXPECT_FALSE(log.HasPart("media2.app[" + std::to_string(otherPid) + "]"));
}

TEST_F(StoppingItems, ThrowsAtTheFirstThatCannotBeKilled)
{
    const auto activator = Make(collection.Bundle("media"));
    const pid_t child = ::fork(); // one that can be killed, the monitor not knowing of it
    if (child == 0) {
        ::pause();
        ::_exit(0);
    }
    const int impossible = 1'000'000'000;
    const int later = 1'000'000'001;
    for (const int pid : {static_cast<int>(child), impossible, later}) {
        ProcessTable::Add(pid, {"media", "media.item", "", "item", ""});
    }
    EXPECT_EQ(Refusal([&] { activator->Stop(); }), "bundle[media] activator stop :kill process[1000000000] fail.");
    EXPECT_EQ(ProcessTable::Marks(), std::set<int>{child});
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    for (const int pid : {static_cast<int>(child), impossible, later}) {
        ProcessTable::Remove(pid);
    }
    ProcessTable::ForgetMarks();
}

TEST_F(StoppingItems, ThrowsDuringThePauseOfARelaunch)
{
    const auto activator = Start(collection.Bundle("media").Item("mediad", ExitingAtTrigger(2)));
    const int dead = PidOf("media.mediad");
    PullTrigger();
    ASSERT_TRUE(Eventually(PATIENCE, [this] { return log.HasPart("need relaunch and now"); }));
    EXPECT_EQ(Refusal([&] { activator->Stop(); }),
              "bundle[media] activator stop :kill process[" + std::to_string(dead) + "] fail.");
    EXPECT_TRUE(ProcessTable::Marks().empty());
    ASSERT_TRUE(IsLogged("media.mediad relaunch done."));
    ASSERT_TRUE(Eventually(PATIENCE, [] { return ProcessTable::Entries().size() == 1; }));
    activator->Stop();
    EXPECT_TRUE(MonitorEnds());
    EXPECT_TRUE(log.Has("normal stop media.mediad..."));
}

TEST_F(StoppingItems, LetsThemBeStartedAgain)
{
    const auto activator = Start(collection.Bundle("media").Item("mediad", Sleeper()));
    const int first = PidOf("media.mediad");
    activator->Stop();
    ASSERT_TRUE(MonitorEnds());
    activator->Start();
    EXPECT_NE(PidOf("media.mediad"), first);
    EXPECT_EQ(log.Count("child process create, start monitor thread."), 2);
}
