// bundlectl doctor: each finding, with a real server.
#include "bundlectl/verb_test.h"

#include "model/findings.h"
#include "support/private_mnt.h"

#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <system_error>
#include <vector>

namespace {

const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

class Doctor : public VerbTest {
public:
    /// The sentences about one kind of finding; empty: none.
    std::string About(const std::string& kind, std::vector<std::string> arguments = {})
    {
        arguments.insert(arguments.begin(), {"doctor", "--json"});
        const Ended ended = Run(std::move(arguments));
        EXPECT_TRUE(FollowsSchema(ended.output));
        const std::size_t at = ended.output.find("{\"kind\":\"" + kind + "\"");
        if (at == std::string::npos) {
            return "";
        }
        EXPECT_EQ(ended.status, 1);
        return ended.output.substr(at, ended.output.find('}', at) - at);
    }

    /// The model's findings at another moment.
    static std::string FoundAt(const std::function<void(Model::Snapshot&)>& change, const Model::MachinePlaces& places)
    {
        const Model::Proc proc;
        const auto snapshot = Model::TakeSnapshot({}, Model::LogDepth::EVERYTHING, proc);
        change(*snapshot);
        std::string found;
        for (const Model::Finding& finding : Model::FindingsOf(*snapshot, Model::StatusOf(*snapshot), places, proc)) {
            found += std::string(finding.kind) + " ";
        }
        return found;
    }

    /// Parallel tests leave processes of their own servers on this machine.
    void LeaveOutProcessesOfOtherTests(Model::Snapshot& snapshot) const
    {
        const auto isOfAnotherTest = [this](const Model::BundleProcess& process) {
            std::error_code gone;
            const std::filesystem::path program =
                std::filesystem::read_symlink("/proc/" + std::to_string(process.stat.pid) + "/exe", gone);
            return program.string().rfind(collection.Path(), 0) != 0;
        };
        auto& processes = snapshot.processes;
        processes.erase(std::remove_if(processes.begin(), processes.end(), isOfAnotherTest), processes.end());
    }

    /// Mounts a small file system in the collection's place until the test ends.
    bool MountCollection(unsigned long flags, const std::string& options)
    {
        m_isMounted = ::mount("none", collection.Path().c_str(), "tmpfs", flags, options.c_str()) == 0;
        return m_isMounted;
    }
    void TearDown() override
    {
        VerbTest::TearDown();
        if (m_isMounted) {
            daemon.Stop(SIGKILL);
            ::umount2(collection.Path().c_str(), MNT_DETACH);
        }
    }

private:
    bool m_isMounted = false;
};

} // namespace

TEST_F(Doctor, SaysThatNoServerRuns)
{
    EXPECT_NE(About("no-server"), "");
}

TEST_F(Doctor, FindsNothingWrongWithAHealthyServer)
{
    daemon.Configure("global.server_submodule_dir", LOADER_DIRECTORY);
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    Serve();
    ASSERT_NE(daemon.WaitForItem("radio", "tuner"), 0);
    const auto alone = [this](Model::Snapshot& snapshot) { LeaveOutProcessesOfOtherTests(snapshot); };
    const std::string found = FoundAt(alone, {"/mnt/bolt", {"/"}});
    EXPECT_EQ(found, "") << found;
    const std::string withoutService = FoundAt(alone, {"/mnt/bolt", {"/nowhere"}});
    EXPECT_EQ(withoutService, "no-service ");
}

TEST_F(Doctor, SaysThatTheConfigurationOrTheCollectionCannotBeRead)
{
    Serve();
    WriteFile(notes / "broken.ini", "[global]\n");
    EXPECT_NE(About("configuration", {"--config", notes / "missing.ini"}), "");
    EXPECT_NE(About("collection", {"--collection", notes / "missing"}), "");
}

TEST_F(Doctor, FindsWhatEverybodyMayWrite)
{
    collection.Bundle("radio").Write();
    Serve();
    ::chmod((collection / "radio").c_str(), 0777);
    EXPECT_TRUE(Has(About("writable-by-all"), "chmod o-w " + collection / "radio"));
    ::chmod("/mnt/bolt", 0777);
    EXPECT_TRUE(Has(About("service-directory"), "/mnt/bolt may be written"));
}

TEST_F(Doctor, FindsACollectionThatCouldVanishOrNotBeExecuted)
{
    if (!MountCollection(MS_NOEXEC, "size=1m")) {
        GTEST_SKIP() << "nothing can be mounted: " << std::strerror(errno);
    }
    Serve();
    EXPECT_NE(About("mount-point"), "");
    EXPECT_NE(About("noexec"), "");
    EXPECT_EQ(About("read-only"), "");
    ASSERT_EQ(::mount("none", collection.Path().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    EXPECT_NE(About("read-only"), "");
}

TEST_F(Doctor, FindsADiskThatIsFull)
{
    if (!MountCollection(0, "size=64k")) {
        GTEST_SKIP() << "nothing can be mounted: " << std::strerror(errno);
    }
    Serve();
    EXPECT_EQ(About("disk-full"), "");
    WriteFile(collection / "filler", std::string(65000, 'x'));
    EXPECT_NE(About("disk-full"), "");
}

TEST_F(Doctor, MissesTheLoader)
{
    daemon.Configure("global.server_submodule_dir", notes.Path().string());
    Serve();
    EXPECT_TRUE(Has(About("loader"), "No such file or directory"));
}

TEST_F(Doctor, SaysThatTheLogCannotBeWritten)
{
    daemon.SetLogFile(notes / "log/server.log");
    daemon.Start();
    ASSERT_TRUE(Eventually(std::chrono::seconds(20), [] { return std::filesystem::exists(SERVICE_SOCKET); }));
    EXPECT_TRUE(Has(About("log"), "cannot be written"));
}

TEST_F(Doctor, CountsRecordsThatWereLost)
{
    Serve();
    const std::string pid = std::to_string(daemon.Pid());
    std::ofstream(daemon.LogFile(), std::ios::app)
        << "2026-11-21T04:14:09.123456Z ERROR 4 0 " << pid << ' ' << pid
        << " - 17 earlier records are lost: no room for them, or nobody has read them.\n";
    EXPECT_TRUE(Has(About("records-lost"), "17 records"));
}

TEST_F(Doctor, SaysThatTheSocketDoesNotAnswer)
{
    WriteFile("/mnt/bolt", "in the way");
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog("init bundle server done."));
    EXPECT_TRUE(Eventually(std::chrono::seconds(10), [this] { return !About("not-serving").empty(); }));
}

TEST_F(Doctor, FindsAServerThatIsOlderThanItsProgram)
{
    const std::string copy = notes / "copy";
    std::filesystem::copy_file(BUNDLE_SERVER_PROGRAM, copy);
    if (::mount(copy.c_str(), BUNDLE_SERVER_PROGRAM, nullptr, MS_BIND, nullptr) != 0) {
        GTEST_SKIP() << "nothing can be mounted: " << std::strerror(errno);
    }
    Serve();
    std::filesystem::last_write_time(copy, std::filesystem::file_time_type::clock::now() + std::chrono::seconds(60));
    EXPECT_NE(About("old-server"), "");
    daemon.Stop(SIGKILL);
    ::umount2(BUNDLE_SERVER_PROGRAM, MNT_DETACH);
}

TEST_F(Doctor, FindsALimitOfDescriptorsThatIsTooLow)
{
    daemon.SetPreparation([] {
        const rlimit limit{100, 100};
        ::setrlimit(RLIMIT_NOFILE, &limit);
    });
    Serve();
    EXPECT_TRUE(Has(About("descriptor-limit"), "100 files only"));
}

TEST_F(Doctor, SaysThatTheMonitorHasDied)
{
    Interpose("FAIL", "waitpid:" + std::to_string(EINVAL) + ":1000:0");
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    Serve();
    ASSERT_NE(daemon.WaitForItem("radio", "tuner"), 0);
    ::kill(daemon.WaitForItem("radio", "tuner"), SIGKILL);
    EXPECT_TRUE(Eventually(std::chrono::seconds(20), [this] { return !About("monitor-dead").empty(); }));
}

TEST_F(Doctor, FindsACrashLoop)
{
    collection.Bundle("radio").Item("tuner.sh", Shell("kill -SEGV $$")).Write();
    Serve();
    ASSERT_TRUE(daemon.WaitForLog("radio.tuner.sh relaunch done.", 3));
    EXPECT_TRUE(Has(About("crash-loop"), "bundlectl why radio"));
}

TEST_F(Doctor, FindsWhatAFormerServerHasLeftAndWhatRunsTwice)
{
    ServeAnItemTwice();
    EXPECT_TRUE(Has(About("orphans"), "bundlectl orphans --end"));
    EXPECT_TRUE(Has(About("runs-twice"), "tuner"));
}

TEST_F(Doctor, FindsAnItemThatHasEscaped)
{
    collection.Bundle("radio")
        .Copy("sleeper", TEST_SLEEPER)
        .Item("tuner.sh", Shell("setsid \"${0%/*}/sleeper\" & sleep 1000"))
        .Write();
    Serve();
    const pid_t shell = daemon.WaitForItem("radio", "tuner.sh");
    ASSERT_NE(shell, 0);
    ASSERT_TRUE(Eventually(std::chrono::seconds(20), [this] { return daemon.Descendants().size() >= 4; }));
    ::kill(shell, SIGKILL);
    EXPECT_TRUE(Eventually(std::chrono::seconds(20), [this] { return !About("escaped").empty(); }));
}

TEST_F(Doctor, FindsASecondServer)
{
    Serve();
    const CollectionBuilder other;
    DaemonRunner second(other.Path());
    second.Start();
    EXPECT_TRUE(Eventually(std::chrono::seconds(20), [this] { return !About("several-servers").empty(); }));
}

TEST_F(Doctor, KnowsAClockThatIsNotSetAndAScriptThatHoldsTheServer)
{
    collection.Bundle("radio").Install("sleep 1000").Write();
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog("/script/install.sh"));
    const Model::MachinePlaces places{"/mnt/bolt", {"/"}};
    EXPECT_FALSE(Has(FoundAt([](Model::Snapshot&) {}, places), "script-holds"));
    EXPECT_TRUE(Has(FoundAt([](Model::Snapshot& snapshot) { snapshot.taken += std::chrono::minutes(1); }, places),
                    "script-holds"));
    EXPECT_TRUE(
        Has(FoundAt([](Model::Snapshot& snapshot) { snapshot.taken = Model::Time(std::chrono::hours(24)); }, places),
            "clock"));
}
