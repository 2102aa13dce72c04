// A server that is killed at random moments of all that it does, and the next one on the same collection.
//
// The daemon's long sleeps are fifty times as short here, so that a moment is as likely to be one of work as one of
// waiting, and hundreds of them take minutes.

#include "support/random.h"
#include "support/scale.h"
#include "system/system_test.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <map>
#include <numeric>
#include <set>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::microseconds;

constexpr std::uint8_t METHOD_DELETE = 4;
constexpr const char SERVING[] = "bundle server start running...";

enum Phase : std::size_t { START_UP, LAUNCH, RELAUNCH, DELETION, UPDATE, INSTALLATION, PHASES };
constexpr std::array<const char*, PHASES> PHASE_NAMES{"start-up", "launch", "relaunch",
                                                      "delete",   "update", "installation"};

/// The bundles and their items. The guest comes and goes, the large one is what is deleted.
const std::map<std::string, std::vector<std::string>> ITEMS{
    {"base", {"based"}},   {"radio", {"radiod", "ukwd"}},    {"tuner", {"tunerd"}},
    {"alarm", {"alarmd"}}, {"large", {"larged", "largerd"}}, {"guest", {"guestd"}},
};
constexpr const char GUEST[] = "guest";
constexpr const char LARGE[] = "large";
constexpr int FILES_OF_THE_LARGE_ONE = 5000; // so that its removal takes its time

/// Every file of a directory: its type, its mode, what is in it.
using Tree = std::map<std::string, std::string>;

Tree TreeOf(const std::string& path)
{
    Tree tree;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(path, error)) {
        const fs::file_status status = entry.symlink_status();
        std::string& shown = tree[fs::relative(entry.path(), path).string()];
        shown = std::to_string(static_cast<int>(status.type())) + " " +
                std::to_string(static_cast<unsigned>(status.permissions())) + "\n";
        if (fs::is_regular_file(status)) {
            shown += ReadFile(entry.path());
        }
    }
    return tree;
}

/// Whether all that is left is as it was.
bool IsPartOf(const Tree& left, const Tree& whole)
{
    return std::includes(whole.begin(), whole.end(), left.begin(), left.end());
}

/// The test is about the moment after it.
void Pause(Microseconds time)
{
    const timespec pause{static_cast<time_t>(time.count() / 1'000'000),
                         static_cast<long>(time.count() % 1'000'000) * 1000};
    ::nanosleep(&pause, nullptr);
}

/// Runs a command as an operator does. Returns what it prints.
std::string OutputOf(const std::string& command)
{
    std::string output;
    FILE* const pipe = ::popen(command.c_str(), "re");
    std::array<char, 4096> piece{};
    for (std::size_t size = 0; (size = std::fread(piece.data(), 1, piece.size(), pipe)) != 0;) {
        output.append(piece.data(), size);
    }
    ::pclose(pipe);
    return output;
}

/// Of a server: there may be none yet, and 0 is pkill's own session, the test's.
void EndSession(pid_t server)
{
    if (server > 0) {
        OutputOf("pkill -KILL -s " + std::to_string(server));
    }
}

/// A daemon that leads a session of its own, as with any init system, and what its operator does after its death.
class AfterAKill : public SystemTest {
protected:
    AfterAKill();

    /// Ends whatever is left of the latest server: docs/operating.md.
    void EndWhatIsLeft();
    /// The record of a deletion that the latest server has not finished, from the command in docs/operating.md.
    std::string UnfinishedDeletion() const;

    std::string In(const std::string& name) const { return collection / name; }
    std::string ProgramOf(const std::string& bundle, const std::string& item) const
    {
        return fs::canonical(collection.Path()).string() + "/" + bundle + "/bin/" + item;
    }
    std::string PidFile() const { return Note("bundle_server.pid"); }
};

class TheNextServer : public AfterAKill {};
class AHalfDeletedBundle : public AfterAKill {};

class AKilledServer : public AfterAKill {
public:
    Random random;
    std::array<int, PHASES> kills{};
    std::array<int, PHASES> hits{};

protected:
    void SetUp() override;
    void TearDown() override;

    /// Lets each phase take its time once, to know how long it is.
    void MeasurePhases();
    /// A kill in that phase, or near it, all that an operator does then, and the next server. Afterwards that one runs.
    void KillAndStartAgain(Phase phase);
    void Report() const;

private:
    struct Frame {
        std::string begin; // the record with which a phase begins; empty, when it begins with the server
        std::string end;   // and the one with which it is over
    };

    void BeReadyFor(Phase phase);
    void Provoke(Phase phase);
    void AwaitBegin();
    bool IsIn() const { return m_hasBegun && !m_hasEnded; }
    void FollowPhase();
    Microseconds LengthOf(Phase phase);

    void Kill();
    void ExpectOnlyItemsToBeLeft();
    void CheckDirectories(Phase phase);
    void CheckLarge();
    void DealWithHalfDeleted();
    void StartAgain();
    void CheckService();
    void CheckBundles();
    void CheckHalfDeleted();
    void CheckErrors();

    void Install(const std::string& bundle);
    void MoveInUpdate(const std::string& bundle);
    pid_t PidOf(const std::string& program) const;
    std::multiset<std::string> ProgramsDue() const;
    int CountOfThisOne(const std::string& message);

    std::map<std::string, Tree> m_masters;
    std::set<std::string> m_installed; // what shall be in the collection, whole
    bool m_isHalfDeleted = false;      // what is left of the large one is in the collection
    std::array<Microseconds, PHASES> m_lengths{};
    Frame m_frame;
    std::size_t m_begin = 0; // in the log: of the phase that is provoked
    std::size_t m_followed = 0;
    bool m_hasBegun = false;
    bool m_hasEnded = false;
    std::size_t m_start = 0; // in the log: of the latest server
    std::unique_ptr<UnixClient> m_client;
    int m_version = 0;
    std::map<std::string, int> m_count; // for the report
};

AfterAKill::AfterAKill()
{
    daemon.SetEnvironment("LD_PRELOAD", TEST_HURRY);
    daemon.SetEnvironment("ASAN_OPTIONS", "verify_asan_link_order=0");
    daemon.SetEnvironment("LC_ALL", "C");
    WriteFile(Note("server.properties"), "global.bundle_collection_dir = " + collection.Path() + "\n");
    daemon.SetArguments({"-f", Note("server.properties"), "--pidfile=" + PidFile()});
    // The runner makes it the leader of a group, which can not have a session of its own: out of the group first, as
    // often as the runner, on its side of the fork, puts it back.
    daemon.SetPreparation([] {
        while (::setsid() == -1) {
            ::setpgid(0, ::getpgid(::getppid()));
        }
    });
}

void AfterAKill::EndWhatIsLeft()
{
    EndSession(daemon.Pid());
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] { return daemon.Descendants().empty(); }));
    // Orphans come to this process.
    for (const pid_t pid : ProcessOf::Zombies(::getpid())) {
        if (pid != daemon.Pid()) {
            ::waitpid(pid, nullptr, 0);
        }
    }
}

std::string AfterAKill::UnfinishedDeletion() const
{
    return OutputOf("awk '$5 == $6 && / unload bundle\\[/ { begun[$5] = $0 }\n"
                    "     $5 == $6 && / success to rm : / { delete begun[$5] }\n"
                    "     END { for (server in begun) print begun[server] }' " +
                    daemon.LogFile() + " | awk '$5 == " + std::to_string(daemon.Pid()) + "'");
}

// ---- Preparations ----

void AKilledServer::SetUp()
{
    for (const auto& [bundle, items] : ITEMS) {
        BundleBuilder builder = staging.Bundle(bundle);
        for (const std::string& item : items) {
            builder.Copy(item, TEST_SLEEPER);
        }
        if (bundle == "radio") {
            builder.Requires("base");
        }
        builder.Install(Shell("exit 0")).Update(Shell("sleep 0.02")).Uninstall(Shell("exit 0")).Write();
    }
    // In its root, so that the manifest is one of many: which go before it is the file system's choice.
    for (int i = 0; i < FILES_OF_THE_LARGE_ONE; ++i) {
        WriteFile(staging / LARGE + "/" + std::to_string(i), std::to_string(i));
    }
    for (const auto& [bundle, items] : ITEMS) {
        m_masters[bundle] = TreeOf(staging / bundle);
        if (bundle != GUEST) {
            Install(bundle);
        }
    }
}

void AKilledServer::TearDown()
{
    if (HasFailure()) {
        std::cout << "the seed was " << random.Seed() << '\n';
        Report();
    }
    SystemTest::TearDown();
}

// In one step: whoever looks finds the whole of it or none.
void AKilledServer::Install(const std::string& bundle)
{
    fs::remove_all(In(bundle));
    fs::copy(staging / bundle, staging / "copy", fs::copy_options::recursive);
    fs::rename(staging / "copy", In(bundle));
    m_installed.insert(bundle);
}

void AKilledServer::MoveInUpdate(const std::string& bundle)
{
    const std::string manifest = staging / bundle + "/BundleManifest.ini";
    WriteFile(manifest, ReadFile(manifest) + "; version " + std::to_string(++m_version) + "\n");
    m_masters[bundle] = TreeOf(staging / bundle);
    fs::copy_file(manifest, staging / "manifest", fs::copy_options::overwrite_existing);
    fs::rename(staging / "manifest", In(bundle) + "/BundleManifest.ini");
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

// With a server that runs, the large one in it and the guest not; or with none.
void AKilledServer::BeReadyFor(Phase phase)
{
    const bool isReady = phase != START_UP && phase != LAUNCH &&
                         (phase != INSTALLATION || m_installed.count(GUEST) == 0) &&
                         (phase != DELETION || m_installed.count(LARGE) != 0);
    if (isReady) {
        return;
    }
    daemon.Stop(SIGKILL);
    EndWhatIsLeft();
    fs::remove_all(In(GUEST));
    m_installed.erase(GUEST);
    if (m_installed.count(LARGE) == 0) {
        Install(LARGE);
        m_isHalfDeleted = false;
    }
    if (phase != START_UP && phase != LAUNCH) {
        StartAgain();
    }
}

void AKilledServer::Provoke(Phase phase)
{
    m_begin = daemon.Log().size();
    m_followed = m_begin;
    m_hasEnded = false;
    std::vector<std::string> names(m_installed.begin(), m_installed.end());
    const std::string bundle = random.OneOf(names);
    switch (phase) {
    case START_UP:
        m_frame = {"", "StartAllBundles..."};
        m_start = m_begin;
        daemon.Start();
        break;
    case LAUNCH:
        m_frame = {"StartAllBundles...", "StartAllBundles done."};
        m_start = m_begin;
        daemon.Start();
        break;
    case RELAUNCH: {
        const std::string& item = ITEMS.at(bundle).front();
        const pid_t pid = PidOf(ProgramOf(bundle, item));
        const std::string process = bundle + "." + item;
        m_frame = {process + "[" + std::to_string(pid) + "] abnormal", process + " relaunch done."};
        if (pid != 0) {
            ::kill(pid, SIGKILL);
        }
        break;
    }
    case DELETION:
        m_frame = {std::string("stop bundle[") + LARGE + "]...", "success to rm : [" + In(LARGE) + "]."};
        m_client = std::make_unique<UnixClient>(SERVICE_SOCKET);
        EXPECT_TRUE(m_client->Send(PacketOf(METHOD_DELETE, 0, NameField(LARGE))));
        break;
    case UPDATE:
        m_frame = {"dir item modified event happen.", "start bundle done."};
        MoveInUpdate(bundle);
        break;
    default:
        m_frame = {"dir item add event happen.", "start bundle done."};
        Install(GUEST);
        break;
    }
    m_hasBegun = m_frame.begin.empty();
}

void AKilledServer::FollowPhase()
{
    const std::vector<LogRecord>& log = daemon.Log();
    for (; m_followed < log.size(); ++m_followed) {
        const std::string& message = log[m_followed].message;
        m_hasEnded = m_hasEnded || (m_hasBegun && message == m_frame.end);
        m_hasBegun = m_hasBegun || message.rfind(m_frame.begin, 0) == 0;
    }
}

void AKilledServer::AwaitBegin()
{
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] {
        FollowPhase();
        return m_hasBegun;
    })) << m_frame.begin;
}

Microseconds AKilledServer::LengthOf(Phase phase)
{
    BeReadyFor(phase);
    Provoke(phase);
    AwaitBegin();
    const auto begin = Clock::now();
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [this] {
        FollowPhase();
        return m_hasEnded;
    })) << m_frame.end;
    return std::chrono::duration_cast<Microseconds>(Clock::now() - begin);
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
    m_installed.erase(LARGE);
}

// ---- The kill, and the operator ----

void AKilledServer::KillAndStartAgain(Phase phase)
{
    BeReadyFor(phase);
    Provoke(phase);
    AwaitBegin();
    Pause(Microseconds(random.Below(1 + static_cast<int>(m_lengths[phase].count()))));
    Kill();
    FollowPhase();
    ++kills[phase];
    hits[phase] += IsIn() ? 1 : 0;
    CheckDirectories(phase);
    DealWithHalfDeleted();
    StartAgain();
}

// Either the server alone dies, and what it has started goes on until the operator ends it, at once or after a while;
// or all goes down together.
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

// No child that waits for its word, no script and no rm: they end by themselves.
void AKilledServer::ExpectOnlyItemsToBeLeft()
{
    std::set<std::string> items;
    for (const auto& [bundle, names] : ITEMS) {
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
    for (const std::string& bundle : m_installed) {
        if (phase != DELETION || bundle != LARGE) {
            EXPECT_TRUE(TreeOf(In(bundle)) == m_masters[bundle]) << bundle << " is not what was installed";
        }
    }
    if (phase == DELETION) {
        CheckLarge();
    }
    for (const fs::directory_entry& entry : fs::directory_iterator(collection.Path())) {
        const std::string name = entry.path().filename();
        EXPECT_TRUE(m_installed.count(name) != 0 || (m_isHalfDeleted && name == LARGE)) << name;
    }
}

void AKilledServer::CheckLarge()
{
    const Tree left = TreeOf(In(LARGE));
    const bool isThere = Exists(In(LARGE));
    if (isThere && left == m_masters[LARGE]) {
        ++m_count["not yet deleted"];
        return;
    }
    m_installed.erase(LARGE);
    m_isHalfDeleted = isThere;
    if (!isThere) {
        ++m_count["deleted"];
        return;
    }
    ++m_count[left.count("BundleManifest.ini") != 0 ? "half deleted, with its manifest" : "half deleted, without it"];
    EXPECT_TRUE(IsPartOf(left, m_masters[LARGE])) << "what is left is as it was";
    EXPECT_NE(UnfinishedDeletion().find(std::string("unload bundle[") + LARGE + "]..."), std::string::npos);
}

void AKilledServer::DealWithHalfDeleted()
{
    if (m_isHalfDeleted && random.InPercent(50)) {
        fs::remove_all(In(LARGE));
        m_isHalfDeleted = false;
    }
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

int AKilledServer::CountOfThisOne(const std::string& message)
{
    const std::vector<LogRecord>& log = daemon.Log();
    return static_cast<int>(std::count_if(log.begin() + static_cast<std::ptrdiff_t>(m_start), log.end(),
                                          [&](const LogRecord& record) { return record.message == message; }));
}

// Of one that is half deleted runs what is left of it, if its manifest is.
std::multiset<std::string> AKilledServer::ProgramsDue() const
{
    std::multiset<std::string> due;
    for (const auto& [bundle, items] : ITEMS) {
        for (const std::string& item : items) {
            if (Exists(In(bundle) + "/BundleManifest.ini") && Exists(In(bundle) + "/bin/" + item)) {
                due.insert(ProgramOf(bundle, item));
            }
        }
    }
    return due;
}

void AKilledServer::CheckBundles()
{
    for (const std::string& bundle : m_installed) {
        EXPECT_EQ(CountOfThisOne("bundle[" + bundle + "] state changing[Starting] -> [Active]"), 1) << bundle;
    }
    const std::multiset<std::string> due = ProgramsDue();
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [&] { return daemon.Programs() == due; }))
        << ::testing::PrintToString(daemon.Programs());
}

void AKilledServer::CheckErrors()
{
    const std::vector<LogRecord>& log = daemon.Log();
    for (std::size_t i = m_start; i < log.size(); ++i) {
        const LogRecord& record = log[i];
        const bool isAsked = record.message.find("nobody") != std::string::npos;
        const bool isOfHalfDeleted = m_isHalfDeleted && (record.message.find(In(LARGE)) != std::string::npos ||
                                                         record.message == "execl fail.errno[2].");
        EXPECT_TRUE(record.level == "INFO" || isAsked || isOfHalfDeleted) << record.line;
    }
}

void AKilledServer::CheckHalfDeleted()
{
    if (!m_isHalfDeleted) {
        return;
    }
    if (!Exists(In(LARGE) + "/BundleManifest.ini")) {
        EXPECT_EQ(CountOfThisOne("failed to load bundles from " + In(LARGE) +
                                 ":File not found: [./BundleManifest.ini] not found."),
                  1);
        return;
    }
    EXPECT_EQ(CountOfThisOne(std::string("bundle[") + LARGE + "] state changing[Starting] -> [Active]"), 1);
    EXPECT_EQ(RequestDelete(LARGE), 200);
    EXPECT_FALSE(Exists(In(LARGE)));
    m_isHalfDeleted = false;
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

TEST_F(AKilledServer, IsFollowedByOneWithEveryBundleWheneverItIsKilled)
{
    const std::size_t rounds = Scaled<std::size_t>(12, 204);
    const int hitsDue = Scaled(0, 12); // a few kills may well miss the shorter phases
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

TEST_F(TheNextServer, StartsASecondCopyBesideEachItemThatIsLeft)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    collection.Bundle("tuner").Copy("tunerd", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    const pid_t first = daemon.Pid();
    daemon.Stop(SIGKILL);
    ASSERT_TRUE(daemon.StartServing());
    const std::multiset<std::string> twice{ProgramOf("radio", "radiod"), ProgramOf("radio", "radiod"),
                                           ProgramOf("tuner", "tunerd"), ProgramOf("tuner", "tunerd")};
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [&] { return daemon.Programs() == twice; }));
    // Those of the first are the first one's session still, which is how they are told from the others.
    EndSession(first);
    const std::multiset<std::string> once{ProgramOf("radio", "radiod"), ProgramOf("tuner", "tunerd")};
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [&] { return daemon.Programs() == once; }));
    EXPECT_EQ(daemon.CountInLog("relaunch"), 0);
}

TEST_F(AHalfDeletedBundle, IsNamedByTheLogOfTheServerThatWasKilled)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    collection.Bundle("tuner").Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(UnfinishedDeletion(), "");
    EXPECT_EQ(RequestDelete("tuner"), 200);
    EXPECT_EQ(UnfinishedDeletion(), "") << "this one is finished";
    fs::rename(In("radio"), staging / "radio");
    ASSERT_TRUE(daemon.WaitForLog("unload bundle[radio]..."));
    EXPECT_EQ(UnfinishedDeletion(), "") << "nobody has asked for this one";
    daemon.Stop(SIGKILL);
    EXPECT_EQ(UnfinishedDeletion(), "");
}

TEST_F(AHalfDeletedBundle, WithoutItsManifestIsNamedByTheNextServerAndLeftAlone)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).NoManifest().Write();
    collection.Bundle("tuner").Write();
    const Tree before = TreeOf(In("radio"));
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(daemon.CountInLog("failed to load bundles from " + In("radio") +
                                ":File not found: [./BundleManifest.ini] not found."),
              1);
    EXPECT_EQ(daemon.CountInLog("bundle[tuner] state changing[Starting] -> [Active]"), 1);
    EXPECT_EQ(TreeOf(In("radio")), before);
    EXPECT_TRUE(daemon.Programs().empty());
}

TEST_F(AHalfDeletedBundle, WithItsManifestIsStartedAsFarAsItIsThereAndCanBeDeletedAgain)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Item("ukwd").Write();
    ASSERT_TRUE(daemon.StartServing());
    EXPECT_EQ(daemon.CountInLog("bundle[radio] state changing[Starting] -> [Active]"), 1);
    EXPECT_TRUE(daemon.WaitForLog("execl fail.errno[2]."));
    EXPECT_EQ(daemon.Programs(), std::multiset<std::string>{ProgramOf("radio", "radiod")});
    EXPECT_EQ(RequestDelete("radio"), 200);
    EXPECT_FALSE(Exists(In("radio")));
}
