// How a bundle's items are started: the command of each kind, its records, its second of pause.

#include "unit/processes/running_items.h"

#include "support/eventually.h"
#include "support/fault.h"

#include <Poco/Util/Application.h>

#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

class StartingItems : public RunningItems {};

} // namespace

TEST_F(StartingItems, NeedsNothingForABundleWithoutItems)
{
    const CallCounter forks(Call::FORK);
    const auto activator = Start(collection.Bundle("media"));
    EXPECT_EQ(forks.Count(), 0);
    EXPECT_FALSE(ProcessTable::IsMonitorRunning());
}

TEST_F(StartingItems, RunsABinaryWithItsBareNameAsArgumentZero)
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
                        "; exec sleep 60\n"); // not executable, and without an interpreter line
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
    EXPECT_TRUE(log.InOrder({releasing, released})) << "it was executed before it was recorded";
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

TEST_F(StartingItems, TakesASecondForEachItemAndMovesAllIntoTheServersGroup)
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

TEST_F(StartingItems, PausesItsWholeSecondDespiteSignals)
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

TEST_F(StartingItems, LeavesItemsBeforeAFailureRunningAndStartsNoneAfterIt)
{
    const auto activator =
        Make(collection.Bundle("media").Item("one", Sleeper()).Item("two", Sleeper()).Item("three", Sleeper()));
    const Fault fault(Call::FORK, EAGAIN, 1, 1);
    EXPECT_EQ(Refusal([&] { activator->Start(); }), "process[media.two] fork fail.");
    EXPECT_EQ(ProcessTable::Entries().size(), 1U);
    EXPECT_EQ(::kill(PidOf("media.one"), 0), 0);
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
