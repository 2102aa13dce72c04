// A server that is killed at random moments of all its work, and the next server on the same collection.
//
// The daemon's long sleeps are divided by fifty here. So a random moment hits work as often as waiting, and hundreds of
// kills take only minutes.

#include "support/random.h"
#include "support/scale.h"
#include "system/restart/after_a_kill.h"
#include "system/restart/installed_bundles.h"
#include "system/restart/phase_watch.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <ctime>
#include <iostream>
#include <map>
#include <memory>
#include <numeric>
#include <set>

namespace {

using Microseconds = std::chrono::microseconds;

constexpr const char SERVING[] = "bundle server start running...";

std::string IsActive(const std::string& bundle)
{
    return "bundle[" + bundle + "] state changing[Starting] -> [Active]";
}

/// Sleeps. The test is about the moment after this time, so there is no condition to wait for.
void Pause(Microseconds time)
{
    const timespec pause{static_cast<time_t>(time.count() / 1'000'000),
                         static_cast<long>(time.count() % 1'000'000) * 1000};
    ::nanosleep(&pause, nullptr);
}

class AKilledServer : public AfterAKill {
public:
    Random random;
    std::array<int, PHASES> kills{};
    std::array<int, PHASES> hits{};

protected:
    void SetUp() override { bundles.Write(); }
    void TearDown() override;

    /// Measures how long each phase takes.
    void MeasurePhases();
    /// Kills the server in or near that phase, does what an operator does then, and starts the next server.
    void KillAndStartAgain(Phase phase);
    void Report() const;

    static constexpr const char* const GUEST = InstalledBundles::GUEST;
    static constexpr const char* const LARGE = InstalledBundles::LARGE;
    InstalledBundles bundles{collection, staging};

private:
    void PrepareFor(Phase phase);
    void Provoke(Phase phase);
    void ProvokeRelaunch(const std::string& bundle);
    void ProvokeDeletion();
    Microseconds LengthOf(Phase phase);

    void Kill();
    void ExpectOnlyItemsToBeLeft();
    void CheckDirectories(Phase phase);
    void StartAgain();
    void CheckService();
    void CheckBundles();
    void CheckHalfDeleted();
    void CheckErrors();

    pid_t PidOf(const std::string& program) const;
    int CountInLatestLog(const std::string& message);

    PhaseWatch m_watch{daemon};
    std::array<Microseconds, PHASES> m_lengths{};
    std::size_t m_start = 0; // in the log: of the latest server
    std::unique_ptr<UnixClient> m_client;
    std::map<std::string, int> m_count; // for the report
};

void AKilledServer::TearDown()
{
    if (HasFailure()) {
        std::cout << "the seed was " << random.Seed() << '\n';
        Report();
    }
    SystemTest::TearDown();
}

pid_t AKilledServer::PidOf(const std::string& program) const
{
    for (const pid_t pid : daemon.Descendants()) {
        if (ProcessOf::Executable(pid) == program) {
            return pid;
        }
    }
    ADD_FAILURE() << program << " does not run";
    return 0;
}

// ---- The phases ----

// Start-up and launch need no server. The others need one that runs, with the large bundle and without the guest.
void AKilledServer::PrepareFor(Phase phase)
{
    const bool isReady = phase != START_UP && phase != LAUNCH && (phase != INSTALLATION || !bundles.Has(GUEST)) &&
                         (phase != DELETION || bundles.Has(LARGE));
    if (isReady) {
        return;
    }
    daemon.Stop(SIGKILL);
    EndWhatIsLeft();
    bundles.Remove(GUEST);
    if (!bundles.Has(LARGE)) {
        bundles.Install(LARGE);
    }
    if (phase != START_UP && phase != LAUNCH) {
        StartAgain();
    }
}

void AKilledServer::Provoke(Phase phase)
{
    m_watch.Restart();
    const std::vector<std::string> names(bundles.Names().begin(), bundles.Names().end());
    const std::string& bundle = random.OneOf(names);
    switch (phase) {
    case START_UP:
        m_watch.Expect("", "StartAllBundles...");
        m_start = daemon.Log().size();
        daemon.Start();
        break;
    case LAUNCH:
        m_watch.Expect("StartAllBundles...", "StartAllBundles done.");
        m_start = daemon.Log().size();
        daemon.Start();
        break;
    case RELAUNCH:
        ProvokeRelaunch(bundle);
        break;
    case DELETION:
        ProvokeDeletion();
        break;
    case UPDATE:
        m_watch.Expect("dir item modified event happen.", "start bundle done.");
        bundles.Update(bundle);
        break;
    default:
        m_watch.Expect("dir item add event happen.", "start bundle done.");
        bundles.Install(GUEST);
        break;
    }
}

void AKilledServer::ProvokeRelaunch(const std::string& bundle)
{
    const std::string& item = InstalledBundles::Items().at(bundle).front();
    const pid_t pid = PidOf(ProgramOf(bundle, item));
    const std::string process = bundle + "." + item;
    m_watch.Expect(process + "[" + std::to_string(pid) + "] abnormal", process + " relaunch done.");
    if (pid != 0) {
        ::kill(pid, SIGKILL);
    }
}

void AKilledServer::ProvokeDeletion()
{
    m_watch.Expect(std::string("stop bundle[") + LARGE + "]...", "success to rm : [" + In(LARGE) + "].");
    m_client = std::make_unique<UnixClient>(SERVICE_SOCKET);
    EXPECT_TRUE(m_client->Send(DeletePacket(LARGE)));
}

Microseconds AKilledServer::LengthOf(Phase phase)
{
    PrepareFor(phase);
    Provoke(phase);
    return m_watch.Measure();
}

void AKilledServer::MeasurePhases()
{
    for (const Phase phase : {START_UP, LAUNCH}) {
        m_lengths[phase] = LengthOf(phase);
    }
    ASSERT_TRUE(daemon.WaitForLog(SERVING));
    for (const Phase phase : {RELAUNCH, UPDATE, INSTALLATION, DELETION}) {
        m_lengths[phase] = LengthOf(phase);
    }
    bundles.ForgetLarge();
}

// ---- The kill, and the operator ----

void AKilledServer::KillAndStartAgain(Phase phase)
{
    PrepareFor(phase);
    Provoke(phase);
    m_watch.AwaitBegin();
    Pause(Microseconds(random.Below(1 + static_cast<int>(m_lengths[phase].count()))));
    Kill();
    m_watch.Follow();
    ++kills[phase];
    hits[phase] += m_watch.IsIn() ? 1 : 0;
    CheckDirectories(phase);
    if (bundles.IsHalfDeleted() && random.InPercent(50)) {
        bundles.ForgetLarge();
    }
    StartAgain();
}

// Either the server dies alone, and its items keep running until the operator ends them, at once or later. Or its whole
// session dies with it.
void AKilledServer::Kill()
{
    if (random.InPercent(50)) {
        ++m_count["all together"];
        EndSession(daemon.Pid());
        EXPECT_EQ(daemon.WaitForEnd().value_or(ProcessEnd{}).signal, SIGKILL);
    } else {
        ++m_count["the server alone"];
        EXPECT_EQ(daemon.Stop(SIGKILL).signal, SIGKILL);
        if (random.InPercent(50)) {
            ExpectOnlyItemsToBeLeft();
        }
    }
    EndWhatIsLeft();
}

// Children that wait for the ready byte, scripts and rm end by themselves.
void AKilledServer::ExpectOnlyItemsToBeLeft()
{
    std::set<std::string> items;
    for (const auto& [bundle, names] : InstalledBundles::Items()) {
        for (const std::string& item : names) {
            items.insert(ProgramOf(bundle, item));
        }
    }
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [&] {
        const std::multiset<std::string> left = daemon.Programs();
        return std::includes(items.begin(), items.end(), left.begin(), left.end());
    }));
}

void AKilledServer::CheckDirectories(Phase phase)
{
    if (phase == DELETION) {
        ++m_count[bundles.TakeLarge()];
        if (bundles.IsHalfDeleted()) {
            EXPECT_NE(UnfinishedDeletion().find(std::string("unload bundle[") + LARGE + "]..."), std::string::npos);
        }
    }
    bundles.ExpectUnchanged();
}

// ---- The next server ----

void AKilledServer::StartAgain()
{
    m_start = daemon.Log().size();
    ASSERT_TRUE(daemon.StartServing());
    CheckService();
    CheckBundles();
    CheckErrors();
    CheckHalfDeleted();
}

void AKilledServer::CheckService()
{
    EXPECT_EQ(RequestDelete("nobody"), 404);
    EXPECT_EQ(ReadFile(PidFile()), std::to_string(daemon.Pid()) + "\n");
}

int AKilledServer::CountInLatestLog(const std::string& message)
{
    const std::vector<LogRecord>& log = daemon.Log();
    return static_cast<int>(std::count_if(log.begin() + static_cast<std::ptrdiff_t>(m_start), log.end(),
                                          [&](const LogRecord& record) { return record.message == message; }));
}

void AKilledServer::CheckBundles()
{
    for (const std::string& bundle : bundles.Names()) {
        EXPECT_EQ(CountInLatestLog(IsActive(bundle)), 1) << bundle;
    }
    std::multiset<std::string> due;
    for (const auto& [bundle, item] : bundles.ItemsDue()) {
        due.insert(ProgramOf(bundle, item));
    }
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [&] { return daemon.Programs() == due; }))
        << ::testing::PrintToString(daemon.Programs());
}

void AKilledServer::CheckErrors()
{
    const std::vector<LogRecord>& log = daemon.Log();
    for (std::size_t i = m_start; i < log.size(); ++i) {
        const LogRecord& record = log[i];
        const bool isOfRequest = record.message.find("nobody") != std::string::npos;
        const bool isOfHalfDeleted = bundles.IsHalfDeleted() && (record.message.find(In(LARGE)) != std::string::npos ||
                                                                 record.message == "execl fail.errno[2].");
        EXPECT_TRUE(record.level == "INFO" || isOfRequest || isOfHalfDeleted) << record.line;
    }
}

void AKilledServer::CheckHalfDeleted()
{
    if (!bundles.IsHalfDeleted()) {
        return;
    }
    if (!Exists(In(LARGE) + "/BundleManifest.ini")) {
        EXPECT_EQ(CountInLatestLog("failed to load bundles from " + In(LARGE) +
                                   ":File not found: [./BundleManifest.ini] not found."),
                  1);
        return;
    }
    EXPECT_EQ(CountInLatestLog(IsActive(LARGE)), 1);
    EXPECT_EQ(RequestDelete(LARGE), 200);
    EXPECT_FALSE(Exists(In(LARGE)));
    bundles.ForgetLarge();
}

void AKilledServer::Report() const
{
    std::cout << "seed " << random.Seed() << '\n';
    for (std::size_t phase = 0; phase < PHASES; ++phase) {
        std::cout << PHASE_NAMES[phase] << ": " << kills[phase] << " kills, " << hits[phase] << " of them within it ("
                  << m_lengths[phase].count() << " us long)\n";
    }
    for (const auto& [what, number] : m_count) {
        std::cout << what << ": " << number << '\n';
    }
    std::cout << std::flush;
}

} // namespace

TEST_F(AKilledServer, IsFollowedByOneThatHasEveryBundle)
{
    const std::size_t rounds = Scaled<std::size_t>(12, 204);
    const int hitsDue = Scaled(0, 12); // in the short form a few kills may miss the shorter phases
    MeasurePhases();
    std::array<Phase, PHASES> order{START_UP, LAUNCH, RELAUNCH, DELETION, UPDATE, INSTALLATION};
    for (std::size_t round = 0; round < rounds && !HasFailure(); round += PHASES) {
        std::shuffle(order.begin(), order.end(), random.Engine());
        for (const Phase phase : order) {
            if (!HasFailure()) {
                KillAndStartAgain(phase);
            }
        }
    }
    for (const Phase phase : order) {
        for (std::size_t more = 0; hits[phase] < hitsDue && more < rounds && !HasFailure(); ++more) {
            KillAndStartAgain(phase);
        }
        EXPECT_GE(hits[phase], hitsDue) << PHASE_NAMES[phase];
    }
    EXPECT_GE(std::accumulate(hits.begin(), hits.end(), 0), 1);
    Report();
}
