// A limit on file sizes that the log reaches.
#include "system/hostile_service/hostile_service.h"

#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

namespace {

using namespace std::chrono_literals;

constexpr rlim_t LIMIT = 16384;

/// Whether the line "SigIgn:" of a process's status has the signal.
bool IsIgnored(const std::string& line, int signal)
{
    const std::size_t mask = line.find_first_of("0123456789abcdef", line.find(':'));
    return mask != std::string::npos && ((std::stoull(line.substr(mask), nullptr, 16) >> (signal - 1)) & 1U) != 0;
}

class ALimitOnFileSizes : public HostileService {
protected:
    /// @param disposition that of SIGXFSZ when the daemon starts
    void StartWithLimit(void (*disposition)(int))
    {
        daemon.SetPreparation([disposition] {
            static_cast<void>(::signal(SIGXFSZ, disposition));
            rlimit limit{};
            ::getrlimit(RLIMIT_FSIZE, &limit);
            limit.rlim_cur = LIMIT;
            ::setrlimit(RLIMIT_FSIZE, &limit);
        });
        StartServing();
    }

    void LetTheLogReachIt()
    {
        ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] {
            ExpectGoodService();
            return HasFailure() || std::filesystem::file_size(daemon.LogFile()) == LIMIT;
        }));
    }

    void LiftTheLimit() const
    {
        const rlimit limit{RLIM_INFINITY, RLIM_INFINITY};
        ASSERT_EQ(::prlimit(daemon.Pid(), RLIMIT_FSIZE, &limit, nullptr), 0);
    }

    /// A bundle whose script and item note the signals that they ignore.
    void MoveInAWitness()
    {
        const auto note = [this](const std::string& name) { return "grep SigIgn /proc/self/status > " + Note(name); };
        staging.Bundle("witness")
            .Install(Shell(note("script")))
            .Item("witness.sh", Shell(note("item") + "\nexec sleep 1000"))
            .Write();
        MoveIn("witness");
        ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return !ReadFile(Note("item")).empty(); }));
    }
};

} // namespace

TEST_F(ALimitOnFileSizes, CostsRecordsButNeitherTheServiceNorTheSupervision)
{
    StartWithLimit(SIG_DFL);
    const pid_t before = Radio();
    LetTheLogReachIt();
    ASSERT_FALSE(HasFailure());
    for (int i = 0; i < 50; ++i) {
        ExpectGoodService();
    }
    ASSERT_EQ(::kill(before, SIGKILL), 0);
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [&] {
        const std::vector<pid_t> items = daemon.Descendants();
        return items.size() == 1 && items.front() != before &&
               ProcessOf::Executable(items.front()).find("/bin/radiod") != std::string::npos;
    })) << "the child logs before it executes the item";
    ExpectRadioIsDeleted();
}

TEST_F(ALimitOnFileSizes, IsFollowedByTheNumberOfLostRecordsOnceItIsLifted)
{
    StartWithLimit(SIG_DFL);
    LetTheLogReachIt();
    ASSERT_FALSE(HasFailure());
    LiftTheLimit();
    ExpectGoodService();
    EXPECT_TRUE(daemon.WaitForLog("earlier records are lost: no room for them, or nobody has read them."));
    EXPECT_TRUE(daemon.WaitForLog("find bundle[not-there] fail."));
    ExpectRadioIsDeleted();
}

TEST_F(ALimitOnFileSizes, LeavesTheSignalItsDefaultEffectInScriptsAndItems)
{
    StartWithLimit(SIG_DFL);
    LetTheLogReachIt();
    ASSERT_FALSE(HasFailure());
    MoveInAWitness();
    EXPECT_FALSE(IsIgnored(ReadFile(Note("script")), SIGXFSZ)) << ReadFile(Note("script"));
    EXPECT_FALSE(IsIgnored(ReadFile(Note("item")), SIGXFSZ)) << ReadFile(Note("item"));
}

TEST_F(ALimitOnFileSizes, LeavesTheSignalIgnoredInScriptsAndItemsIfTheServerWasStartedIgnoringIt)
{
    StartWithLimit(SIG_IGN);
    MoveInAWitness();
    EXPECT_TRUE(IsIgnored(ReadFile(Note("script")), SIGXFSZ)) << ReadFile(Note("script"));
    EXPECT_TRUE(IsIgnored(ReadFile(Note("item")), SIGXFSZ)) << ReadFile(Note("item"));
}

TEST_F(ALimitOnFileSizes, DoesNotKillAChildThatCannotBeExecuted)
{
    StartWithLimit(SIG_DFL);
    LetTheLogReachIt();
    ASSERT_FALSE(HasFailure());
    staging.Bundle("ghost")
        .Item("missing", "not executable")
        .Item("next.sh", Shell(": > " + Note("next") + "\nexec sleep 1000"))
        .Write();
    std::filesystem::remove(staging / "ghost/bin/missing");
    MoveIn("ghost");
    ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return Exists(Note("next")); }));
    LiftTheLimit();
    EXPECT_FALSE(daemon.WaitForLog("relaunch ghost.missing...", 1, 3s))
        << "it has ended with status 1 and is not relaunched";
}

TEST_F(ALimitOnFileSizes, DoesNotEndADaemonInTheBackground)
{
    const std::string pidFile = Note("pid");
    const std::string configuration = Note("configuration.ini");
    WriteFile(configuration, "[global]\nbundle_collection_dir = " + collection.Path() + "\n");
    daemon.SetArguments({"-f", configuration, "--daemon", "--pidfile=" + pidFile});
    daemon.SetPreparation([] {
        const rlimit limit{LIMIT, LIMIT};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    });
    daemon.Start();
    ASSERT_TRUE(Eventually(DaemonRunner::PATIENCE, [] { return UnixClient(SERVICE_SOCKET).IsConnected(); }));
    const UnixClient client(SERVICE_SOCKET);
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [&] {
        return client.Ask(DeletePacket(NO_BUNDLE), DaemonRunner::PATIENCE) != StatusPacket(404) ||
               std::filesystem::file_size(daemon.LogFile()) == LIMIT;
    }));
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(client.Ask(DeletePacket(NO_BUNDLE), DaemonRunner::PATIENCE), StatusPacket(404)) << i;
    }
}
