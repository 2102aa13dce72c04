// Random deaths, changes and requests for a long time. The books record what must follow each. In the end they must
// balance, and the server must have the same resources as before.
//
// In the long form a relaunch takes a second, and the server does one at a time. In the short form its long sleeps are
// divided by fifty, and deaths come that much faster.

#include "algapp_bolt_comm.h"
#include "bundle_service.h"
#include "common/unique_fd.h"
#include "support/random.h"
#include "support/scale.h"
#include "support/slowness.h"
#include "system/soak/books.h"
#include "system/soak/clients.h"
#include "system/soak/collection.h"
#include "system/soak/deaths.h"
#include "system/system_test.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <iostream>
#include <map>
#include <set>

namespace {

using namespace std::chrono_literals;
using namespace SystemServer::BundleService;
using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr std::size_t EVENT_SIZE = sizeof(lumo_header) + sizeof(SystemServer::EventRecord);

const int g_bundles = Scaled(6, 25);
const Milliseconds g_warmUp = Scaled<Milliseconds>(1500ms, 60s);
const Milliseconds g_time = Scaled<Milliseconds>(5s, 600s);
/// About the time that a relaunch takes.
const Milliseconds g_launch = Scaled<Milliseconds>(30ms, 1s);

struct Resources {
    long kilobytes;
    int threads;
    std::map<int, std::string> descriptors;
};

class ASoak : public SystemTest {
protected:
    void SetUp() override;
    void TearDown() override;

    void LiveFor(Milliseconds time);
    /// Brings every bundle into the collection, with all its items running, so that resources can be compared.
    bool BringAllBack();
    Resources Take() const { return {daemon.ResidentKilobytes(), daemon.Threads(), daemon.Descriptors()}; }

    void ExpectBooksToBalance();
    void ExpectItemsToRunOnce();
    void ExpectResources(const Resources& before, const Resources& after);
    void Report(const Resources& before, const Resources& after) const;

    SoakClients clients;

private:
    void Change();
    void ChangeOneThatIsIn(SoakBundle& bundle);
    void Delete(SoakBundle& bundle);
    void Ask();
    void Send(std::uint16_t status, const std::string& packet, std::function<void()> answered = {});

    void Follow();
    void FollowStarts();
    void FollowLog();
    void FollowEvents();

    bool Settle();
    void ShowOpen() const;
    /// True when the monitor sleeps, or has ended because no item runs.
    bool MonitorRests() const
    {
        const std::string state = daemon.StateOfThread("bundle_monitor");
        return state == "S" || state.empty();
    }

    Random m_random;
    SoakBooks m_books;
    SoakDeaths m_deaths{notes, m_books, m_random};
    SoakCollection m_soakCollection{collection, staging, m_books, m_random};
    std::size_t m_logRead = 0;
    std::size_t m_startsRead = 0;
    Common::UniqueFd m_fifo;
    std::size_t m_eventBytes = 0;
    std::map<std::string, int> m_counts; // for the report
};

void ASoak::SetUp()
{
    if (!IsLongForm()) {
        daemon.SetEnvironment("LD_PRELOAD", TEST_HURRY);
        daemon.SetEnvironment("ASAN_OPTIONS", "verify_asan_link_order=0");
    }
    daemon.SetEnvironment("LC_ALL", "C");
    daemon.SetEnvironment("SOAK_STARTS", Note("starts"));
    daemon.SetEnvironment("SOAK_ORDER", Note("order."));
    WriteFile(Note("starts"), "");
    m_soakCollection.Write(g_bundles);
    const auto items = static_cast<int>(m_books.Items().size());
    ASSERT_TRUE(daemon.StartServing(DaemonRunner::PATIENCE + 2 * items * g_launch));
    ASSERT_EQ(::mkfifo(EVENT_FIFO, 0600), 0);
    m_fifo.Reset(
        ::open(EVENT_FIFO, O_RDWR | O_NONBLOCK | O_CLOEXEC)); // also for writing, so that reads never find its end
    ASSERT_TRUE(m_fifo.IsOpen());
    clients.Connect(3);
    ASSERT_TRUE(Settle());
}

void ASoak::TearDown()
{
    if (HasFailure()) {
        std::cout << "the seed was " << m_random.Seed() << '\n';
    }
    SystemTest::TearDown();
}

void ASoak::LiveFor(Milliseconds time)
{
    auto nextDeaths = Clock::now();
    auto nextChange = Clock::now();
    auto nextRequest = Clock::now();
    Eventually(time, [&] {
        Follow();
        const auto now = Clock::now();
        if (now >= nextDeaths) {
            // A burst of one to six deaths, then a pause of half to three times the duration of its relaunches.
            const int burst = 1 + m_random.Below(m_random.InPercent(20) ? 6 : 2);
            for (int i = 0; i < burst; ++i) {
                m_deaths.KillOne();
            }
            nextDeaths = now + burst * g_launch * (50 + m_random.Below(250)) / 100;
        }
        if (now >= nextChange) {
            Change();
            nextChange = now + g_launch * (100 + m_random.Below(900)) / 100;
        }
        if (now >= nextRequest) {
            Ask();
            nextRequest = now + g_launch * m_random.Below(300) / 100;
        }
        return HasFailure();
    });
}

// ---- What happens ----

void ASoak::Change()
{
    if (m_random.InPercent(10)) {
        m_soakCollection.DropInJunk();
    }
    // A dead child stays in the table until after the last record of its relaunch. Until then its bundle cannot be
    // stopped. The log does not show that step, but the monitor's sleep does.
    SoakBundle& bundle = m_random.OneOf(m_books.Bundles());
    if (!bundle.Balances() || bundle.isDeletionRequested || !MonitorRests()) {
        return;
    }
    if (!bundle.isIn) {
        m_soakCollection.Install(bundle);
    } else if (bundle.isBroken) {
        m_soakCollection.Update(bundle);
    } else {
        ChangeOneThatIsIn(bundle);
    }
}

void ASoak::ChangeOneThatIsIn(SoakBundle& bundle)
{
    // The first one stays because others require it.
    const bool mayGo = &bundle != &m_books.Bundles().front() && m_soakCollection.BundlesOut() < 3;
    switch (m_random.Below(mayGo ? 8 : 5)) {
    case 0:
    case 1:
        m_soakCollection.Update(bundle);
        break;
    case 2:
    case 3:
        m_soakCollection.Touch(bundle);
        break;
    case 4:
        m_soakCollection.Break(bundle);
        break;
    case 5:
        m_soakCollection.Withdraw(bundle);
        break;
    default:
        Delete(bundle);
        break;
    }
}

void ASoak::Delete(SoakBundle& bundle)
{
    ++m_counts["bundles deleted"];
    bundle.isIn = false;
    bundle.isDeletionRequested = true;
    m_books.ExpectStop(bundle);
    m_books.ExpectUnload(bundle);
    Send(STATUS_OK, DeletePacket(bundle.name), [this, &bundle] {
        EXPECT_FALSE(Exists(collection / bundle.name));
        bundle.isDeletionRequested = false;
        bundle.isBroken = false;
    });
}

void ASoak::Ask()
{
    switch (m_random.Below(6)) {
    case 0:
    case 1:
        Send(STATUS_NOT_FOUND, DeletePacket("nobody" + std::to_string(m_random.Below(100))));
        break;
    case 2:
        Send(STATUS_BAD_REQUEST, PacketOf(METHOD_DELETE_BUNDLE, URI, NameField("bundle1").substr(0, 127)));
        break;
    case 3:
        Send(STATUS_BAD_REQUEST, PacketOf(static_cast<std::uint8_t>(m_random.Below(4)), URI, NameField("bundle1")));
        break;
    case 4:
        Send(STATUS_BAD_REQUEST, PacketOf(METHOD_DELETE_BUNDLE, 1, NameField("bundle1")));
        break;
    default: // the length field is not the content's length
        ++m_counts["broken packets"];
        clients.SendBroken(DeletePacket("bundle1") + "more");
        break;
    }
}

void ASoak::Send(std::uint16_t status, const std::string& packet, std::function<void()> answered)
{
    ++m_counts["requests"];
    clients.Send(m_random.Below(clients.Count()), status, packet, std::move(answered));
}

// ---- What is seen ----

void ASoak::Follow()
{
    FollowStarts();
    FollowLog();
    clients.Follow();
    FollowEvents();
}

void ASoak::FollowStarts()
{
    std::ifstream file(Note("starts"));
    file.seekg(static_cast<std::streamoff>(m_startsRead));
    for (std::string line; std::getline(file, line) && !file.eof();) {
        m_startsRead += line.size() + 1;
        m_books.TakeStart(line);
    }
}

void ASoak::FollowLog()
{
    const std::vector<LogRecord>& log = daemon.Log();
    for (; m_logRead < log.size(); ++m_logRead) {
        m_books.TakeRecord(log[m_logRead]);
        m_soakCollection.TakeRecord(log[m_logRead]);
    }
}

void ASoak::FollowEvents()
{
    std::array<char, 16 * EVENT_SIZE> events{};
    const ssize_t size = ::read(m_fifo.Get(), events.data(), events.size());
    m_eventBytes += size > 0 ? static_cast<std::size_t>(size) : 0;
}

// ---- Both together ----

bool ASoak::Settle()
{
    const auto items = static_cast<int>(m_books.Items().size());
    const bool isSettled = Eventually(DaemonRunner::PATIENCE + 4 * items * g_launch, [this] {
        Follow();
        return HasFailure() ||
               (m_books.Balance() && m_soakCollection.JunkFailures().Balances() && clients.IsQuiet() && MonitorRests());
    });
    if (!isSettled) {
        ShowOpen();
    }
    return isSettled;
}

void ASoak::ShowOpen() const
{
    m_books.ShowOpenAccounts();
    EXPECT_EQ(m_soakCollection.JunkFailures().seen, m_soakCollection.JunkFailures().due);
    clients.ShowOpen();
}

bool ASoak::BringAllBack()
{
    if (!Settle()) {
        return false;
    }
    for (SoakBundle& bundle : m_books.Bundles()) {
        for (const SoakItem* const item : bundle.items) {
            m_deaths.Countermand(*item);
        }
        if (!bundle.isIn) {
            m_soakCollection.Install(bundle);
        } else if (bundle.isBroken || bundle.HasRestingItem()) {
            m_soakCollection.Update(bundle);
        }
    }
    return Settle();
}

void ASoak::ExpectBooksToBalance()
{
    m_books.ExpectBalance();
    ShowOpen();
    EXPECT_EQ(m_eventBytes, static_cast<std::size_t>(m_counts["bundles deleted"]) * EVENT_SIZE) << "one each";
    EXPECT_EQ(daemon.CountInLog("exit pid["), 0) << "a child that is not in the table";
    EXPECT_EQ(daemon.CountInLog("non-bundle process["), 0) << "a script, or rm";
}

void ASoak::ExpectItemsToRunOnce()
{
    std::multiset<std::string> due;
    for (const SoakItem& item : m_books.Items()) {
        EXPECT_NE(item.pid, 0) << item.process;
        EXPECT_EQ(ProcessOf::Status(item.pid, "PPid"), std::to_string(daemon.Pid())) << item.process;
        due.insert(item.program);
    }
    EXPECT_EQ(daemon.Programs(), due);
    EXPECT_TRUE(ProcessOf::Zombies(daemon.Pid()).empty());
}

void ASoak::ExpectResources(const Resources& before, const Resources& after)
{
    EXPECT_EQ(after.threads, before.threads);
    EXPECT_EQ(after.descriptors, before.descriptors);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // the sanitizers keep freed memory
    if (SLOWNESS == 1) {                                            // an emulator keeps what it has translated
        EXPECT_LE(after.kilobytes, before.kilobytes + 512);
    }
#endif
}

void ASoak::Report(const Resources& before, const Resources& after) const
{
    std::cout << "seed " << m_random.Seed() << ", " << m_books.Items().size() << " items\n";
    for (const auto* const counts : {&m_counts, &m_soakCollection.Counts()}) {
        for (const auto& [what, count] : *counts) {
            std::cout << what << ": " << count << '\n';
        }
    }
    std::cout << "killed: " << m_deaths.Killed() << "\ndied by themselves, as ordered: " << m_deaths.Ordered()
              << "\ndied at their start: " << m_books.DeathsAtStart()
              << "\nstopped with their bundle: " << m_books.StoppedItems()
              << "\nrelaunches: " << m_books.RelaunchesSeen() << "\nslowest reply: " << clients.SlowestReply().count()
              << " ms\nresident: " << before.kilobytes << " kB, then " << after.kilobytes
              << " kB\nthreads: " << before.threads << ", then " << after.threads
              << "\ndescriptors: " << before.descriptors.size() << ", then " << after.descriptors.size() << std::endl;
}

} // namespace

TEST_F(ASoak, OfDeathsChangesAndRequestsLosesNothingAndLeavesNothing)
{
    LiveFor(g_warmUp);
    ASSERT_FALSE(HasFailure());
    ASSERT_TRUE(BringAllBack());
    const Resources before = Take();
    LiveFor(g_time);
    EXPECT_TRUE(BringAllBack());
    const Resources after = Take();
    ExpectBooksToBalance();
    ExpectItemsToRunOnce();
    clients.ExpectNothingUnread();
    ExpectResources(before, after);
    Report(before, after);
    EXPECT_EQ(daemon.Stop().status, 0);
    if (SLOWNESS == 1) { // an emulator writes a line for each item that dies of a signal
        EXPECT_EQ(daemon.Errors(), "");
    }
}
