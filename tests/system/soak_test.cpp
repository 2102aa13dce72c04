// A long time of deaths, changes and requests, all at random. The test knows of each death, for it has caused it or has
// been told of it by the item, and keeps books of what is due for it: which records, which births. In the end the books
// must balance, and the server must hold what it held before.
//
// The long form takes the server as it is: a relaunch takes a second, and there is one at a time. In the short form its
// long sleeps are fifty times as short, and the deaths come that much faster.

#include "support/random.h"
#include "support/scale.h"
#include "support/slowness.h"
#include "system/system_test.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <list>
#include <memory>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr std::uint8_t METHOD_DELETE = 4;
constexpr std::size_t EVENT_SIZE = 72;
constexpr int ITEMS_OF_A_BUNDLE = 2;

const int g_bundles = Scaled(6, 25);
const Milliseconds g_warmUp = Scaled<Milliseconds>(1500ms, 60s);
const Milliseconds g_time = Scaled<Milliseconds>(5s, 600s);
/// What a relaunch takes, roughly.
const Milliseconds g_launch = Scaled<Milliseconds>(30ms, 1s);

constexpr std::array SIGNALS{SIGKILL, SIGKILL, SIGTERM, SIGTERM, SIGSEGV, SIGABRT, SIGHUP,  SIGINT,
                             SIGQUIT, SIGBUS,  SIGFPE,  SIGILL,  SIGPIPE, SIGALRM, SIGUSR2, SIGXCPU};
constexpr std::array RELAUNCHING{2, 6, 7, 8, 10, 11, 15, 31, 255};
constexpr std::array RESTING{0, 1, 3, 4, 5, 9, 12, 30, 32, 64, 127, 254};

bool LeadsToRelaunch(int order)
{
    return order < 0 || std::find(RELAUNCHING.begin(), RELAUNCHING.end(), order) != RELAUNCHING.end();
}

bool EndsWith(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// What comes before the end, when the text has this beginning and this end.
std::string Between(const std::string& text, const std::string& begin, const std::string& end)
{
    const bool fits = text.size() >= begin.size() + end.size() && text.rfind(begin, 0) == 0 && EndsWith(text, end);
    return fits ? text.substr(begin.size(), text.size() - begin.size() - end.size()) : "";
}

/// Something that is to happen so many times, and has happened so many times.
struct Account {
    int due = 0;
    int seen = 0;
    bool Balances() const { return due == seen; }
};

struct Item {
    std::string process; // the bundle's and the item's name, as in the log
    std::string program;
    pid_t pid = 0; // 0 when it does not run, or not yet again
    Account births;
    Account relaunches;
    Account rests;
    Account stops;

    bool IsQuiet() const { return births.Balances() && relaunches.Balances() && rests.Balances() && stops.Balances(); }
};

struct BundleInTest {
    std::string name;
    std::vector<Item*> items;
    Account starts;
    Account failedUpdates;
    Account unloads;
    bool isIn = true;
    bool isBroken = false;   // its manifest
    bool isAskedFor = false; // a request to delete it is under way

    bool HasStarted() const { return isIn && starts.Balances(); }
    bool IsQuiet() const
    {
        return starts.Balances() && failedUpdates.Balances() && unloads.Balances() && !isAskedFor &&
               std::all_of(items.begin(), items.end(), [](const Item* item) { return item->IsQuiet(); });
    }
};

/// A connection with requests under way; the replies come in their order.
struct Client {
    struct Request {
        std::uint16_t status;
        BundleInTest* deleted;
        Clock::time_point sent;
    };
    UnixClient connection{SERVICE_SOCKET};
    std::deque<Request> open;
};

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
    /// Every bundle in the collection and all its items running: what a comparison needs.
    bool BringAllBack();
    Resources Take() const { return {daemon.ResidentKilobytes(), daemon.Threads(), daemon.Descriptors()}; }

    void ExpectBooksToBalance();
    void ExpectItemsToRunOnce();
    void ExpectNothingUnread();
    void Report(const Resources& before, const Resources& after) const;

private:
    // What happens.
    void LetDie();
    void Order(Item& item, int order, bool byItself);
    void Change();
    void ChangeOneThatIsIn(BundleInTest& bundle);
    void Install(BundleInTest& bundle);
    void Update(BundleInTest& bundle);
    void Touch(BundleInTest& bundle);
    void Break(BundleInTest& bundle);
    void Withdraw(BundleInTest& bundle);
    void Delete(BundleInTest& bundle);
    void DropInJunk();
    void Ask();
    void SendBrokenPacket();

    // What is due for it.
    void Expect(const std::string& levelAndMessage) { ++m_balance[levelAndMessage]; }
    void ExpectDeath(Item& item, pid_t pid, int order);
    void ExpectStop(BundleInTest& bundle);
    void ExpectStart(BundleInTest& bundle);

    // What is seen.
    void Follow();
    void FollowBirths();
    void FollowLog();
    void FollowReplies();
    void TakeRecord(const LogRecord& record);
    void TakeRecordOfBundle(const std::string& message);
    void TakeReply(Client& client, const std::string& packet);

    bool Settle();
    void ShowWhatIsOpen() const;
    bool IsSettled() const;
    bool MonitorSleeps() const;
    int Backlog() const;
    int BundlesOut() const;
    std::string In(const std::string& name) const { return collection / name; }
    void Send(std::uint16_t status, const std::string& packet, BundleInTest* deleted = nullptr);
    std::vector<Item*> Killable();
    int RandomOrder(int restsInPercent);

    Random m_random;
    std::list<Item> m_items;
    std::map<std::string, Item*> m_itemOfProcess;
    std::map<std::string, Item*> m_itemOfName;
    std::vector<BundleInTest> m_bundles;
    std::map<std::string, int> m_balance; // of the records of deaths: due less seen
    std::size_t m_logRead = 0;
    std::size_t m_birthsRead = 0;
    std::list<Client> m_clients;
    std::list<UnixClient> m_broken;
    int m_fifo = -1;
    std::size_t m_eventBytes = 0;
    int m_junk = 0;
    Account m_junkFailures;
    Milliseconds m_slowestReply{0};
    // For the report.
    std::map<std::string, int> m_count;
};

void ASoak::SetUp()
{
    if (!IsLongForm()) {
        daemon.SetEnvironment("LD_PRELOAD", TEST_HURRY);
        daemon.SetEnvironment("ASAN_OPTIONS", "verify_asan_link_order=0");
    }
    daemon.SetEnvironment("LC_ALL", "C");
    daemon.SetEnvironment("SOAK_BIRTHS", Note("births"));
    daemon.SetEnvironment("SOAK_DOOM", Note("doom."));
    WriteFile(Note("births"), "");
    m_bundles.resize(static_cast<std::size_t>(g_bundles));
    for (std::size_t i = 0; i < m_bundles.size(); ++i) {
        BundleInTest& bundle = m_bundles[i];
        bundle.name = "bundle" + std::to_string(i);
        BundleBuilder builder = staging.Bundle(bundle.name);
        for (int j = 0; j < ITEMS_OF_A_BUNDLE; ++j) {
            const std::string name = "item" + std::to_string(i) + "_" + std::to_string(j);
            builder.Copy(name, TEST_SOAK_ITEM);
            m_items.emplace_back();
            Item& item = m_items.back();
            item.process = bundle.name + "." + name;
            item.program = fs::canonical(collection.Path()).string() + "/" + bundle.name + "/bin/" + name;
            bundle.items.push_back(&item);
            m_itemOfProcess[item.process] = &item;
            m_itemOfName[name] = &item;
        }
        if (i % 2 == 0) {
            builder.Install(Shell("exit 0")).Update(Shell("exit 0")).Uninstall(Shell("exit 0"));
        }
        if (i % 5 == 4) {
            builder.Requires(m_bundles.front().name);
        }
        builder.Write();
        fs::copy(staging / bundle.name, In(bundle.name), fs::copy_options::recursive);
        ExpectStart(bundle);
    }
    ASSERT_TRUE(daemon.StartServing(DaemonRunner::PATIENCE + 2 * g_bundles * ITEMS_OF_A_BUNDLE * g_launch));
    ASSERT_EQ(::mkfifo(EVENT_FIFO, 0600), 0);
    m_fifo = ::open(EVENT_FIFO, O_RDWR | O_NONBLOCK | O_CLOEXEC); // which is never at its end
    ASSERT_GE(m_fifo, 0);
    for (int i = 0; i < 3; ++i) {
        m_clients.emplace_back();
        ASSERT_TRUE(m_clients.back().connection.IsConnected());
    }
    ASSERT_TRUE(Settle());
}

void ASoak::TearDown()
{
    if (HasFailure()) {
        std::cout << "the seed was " << m_random.Seed() << '\n';
    }
    SystemTest::TearDown();
    ::close(m_fifo);
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
            // Bursts of one to six, and then as much time as they need, or half of it, or three times as much.
            const int burst = 1 + m_random.Below(m_random.InPercent(20) ? 6 : 2);
            for (int i = 0; i < burst; ++i) {
                LetDie();
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

std::vector<Item*> ASoak::Killable()
{
    std::vector<Item*> killable;
    for (BundleInTest& bundle : m_bundles) {
        // A child that the server is just about to stop has one end or the other: the books could not know which.
        if (bundle.HasStarted() && !bundle.isAskedFor) {
            std::copy_if(bundle.items.begin(), bundle.items.end(), std::back_inserter(killable),
                         [](const Item* item) { return item->pid != 0; });
        }
    }
    return killable;
}

int ASoak::RandomOrder(int restsInPercent)
{
    if (m_random.InPercent(restsInPercent)) {
        return m_random.OneOf(RESTING);
    }
    return m_random.InPercent(30) ? m_random.OneOf(RELAUNCHING) : -m_random.OneOf(SIGNALS);
}

void ASoak::LetDie()
{
    const std::vector<Item*> killable = Killable();
    if (killable.empty() || Backlog() >= 8) {
        return;
    }
    Item& item = *m_random.OneOf(killable);
    const int order = RandomOrder(10);
    if (LeadsToRelaunch(order) && m_random.InPercent(15)) {
        WriteFile(Note("doom.draft"), std::to_string(RandomOrder(20)));
        fs::rename(Note("doom.draft"), Note("doom." + item.program.substr(item.program.rfind('/') + 1)));
    }
    const bool byItself = order >= 0 || m_random.InPercent(40);
    ExpectDeath(item, item.pid, order);
    ++m_count[byItself ? "died by themselves, told to" : "killed"];
    if (byItself) {
        sigval value{};
        value.sival_int = order;
        EXPECT_EQ(::sigqueue(item.pid, SIGUSR1, value), 0) << item.process;
    } else {
        EXPECT_EQ(::kill(item.pid, -order), 0) << item.process;
    }
    item.pid = 0;
}

void ASoak::Change()
{
    if (m_random.InPercent(10)) {
        DropInJunk();
    }
    // Two steps of the monitor are not in the log: the dead child leaves the table only after the last record of its
    // relaunch, and until then its bundle can not be stopped.
    BundleInTest& bundle = m_random.OneOf(m_bundles);
    if (!bundle.IsQuiet() || !MonitorSleeps()) {
        return;
    }
    if (!bundle.isIn) {
        Install(bundle);
    } else if (bundle.isBroken) {
        Update(bundle);
    } else {
        ChangeOneThatIsIn(bundle);
    }
}

void ASoak::ChangeOneThatIsIn(BundleInTest& bundle)
{
    // Those that are required stay: what is missing then is another test's.
    const bool mayGo = &bundle != &m_bundles.front() && BundlesOut() < 3;
    switch (m_random.Below(mayGo ? 8 : 5)) {
    case 0:
    case 1:
        Update(bundle);
        break;
    case 2:
    case 3:
        Touch(bundle);
        break;
    case 4:
        Break(bundle);
        break;
    case 5:
        Withdraw(bundle);
        break;
    default:
        Delete(bundle);
        break;
    }
}

void ASoak::Install(BundleInTest& bundle)
{
    ++m_count["bundles added"];
    bundle.isIn = true;
    ExpectStart(bundle);
    if (m_random.InPercent(50)) {
        // The manifest last: should this be held up for a second, the server finds a directory that is none yet.
        fs::create_directory(In(bundle.name));
        for (const char* const part : {"/script", "/bin", "/BundleManifest.ini"}) {
            if (Exists(staging / bundle.name + part)) {
                fs::copy(staging / bundle.name + part, In(bundle.name) + part, fs::copy_options::recursive);
            }
        }
    } else {
        fs::copy(staging / bundle.name, staging / "copy", fs::copy_options::recursive);
        fs::rename(staging / "copy", In(bundle.name));
    }
}

void ASoak::Update(BundleInTest& bundle)
{
    ++m_count["bundles updated"];
    bundle.isBroken = false;
    ExpectStop(bundle);
    ExpectStart(bundle);
    fs::copy_file(staging / bundle.name + "/BundleManifest.ini", staging / "manifest",
                  fs::copy_options::overwrite_existing);
    fs::rename(staging / "manifest", In(bundle.name) + "/BundleManifest.ini");
}

void ASoak::Touch(BundleInTest& bundle)
{
    ++m_count["bundles updated"];
    ExpectStop(bundle);
    ExpectStart(bundle);
    fs::last_write_time(In(bundle.name), fs::file_time_type::clock::now());
}

void ASoak::Break(BundleInTest& bundle)
{
    ++m_count["bundles broken"];
    bundle.isBroken = true;
    ++bundle.failedUpdates.due;
    WriteFile(staging / "manifest", "[global]\nbundle_name = broken\n");
    fs::rename(staging / "manifest", In(bundle.name) + "/BundleManifest.ini");
}

void ASoak::Withdraw(BundleInTest& bundle)
{
    ++m_count["bundles withdrawn"];
    bundle.isIn = false;
    ExpectStop(bundle);
    ++bundle.unloads.due;
    fs::remove_all(staging / "withdrawn");
    fs::rename(In(bundle.name), staging / "withdrawn");
}

void ASoak::Delete(BundleInTest& bundle)
{
    ++m_count["bundles deleted"];
    bundle.isIn = false;
    bundle.isAskedFor = true;
    ExpectStop(bundle);
    ++bundle.unloads.due;
    Send(200, PacketOf(METHOD_DELETE, 0, NameField(bundle.name)), &bundle);
}

void ASoak::DropInJunk()
{
    if (!m_junkFailures.Balances()) {
        return;
    }
    fs::remove_all(In("junk" + std::to_string(m_junk)));
    ++m_count["directories that are no bundles"];
    ++m_junkFailures.due;
    const std::string name = "junk" + std::to_string(++m_junk);
    staging.Bundle(name).NoManifest().Script("install.sh", Shell("exit 1")).Write();
    MoveIn(name);
}

void ASoak::Ask()
{
    switch (m_random.Below(6)) {
    case 0:
    case 1:
        Send(404, PacketOf(METHOD_DELETE, 0, NameField("nobody" + std::to_string(m_random.Below(100)))));
        break;
    case 2:
        Send(400, PacketOf(METHOD_DELETE, 0, NameField("bundle1").substr(0, 127)));
        break;
    case 3:
        Send(400, PacketOf(static_cast<std::uint8_t>(m_random.Below(4)), 0, NameField("bundle1")));
        break;
    case 4:
        Send(400, PacketOf(METHOD_DELETE, 1, NameField("bundle1")));
        break;
    default:
        SendBrokenPacket();
        break;
    }
}

void ASoak::Send(std::uint16_t status, const std::string& packet, BundleInTest* deleted)
{
    ++m_count["requests"];
    Client& client = *std::next(m_clients.begin(), m_random.Below(static_cast<int>(m_clients.size())));
    client.open.push_back({status, deleted, Clock::now()});
    EXPECT_TRUE(client.connection.Send(packet));
}

// The length field is not the content's length.
void ASoak::SendBrokenPacket()
{
    ++m_count["broken packets"];
    m_broken.emplace_back(SERVICE_SOCKET);
    EXPECT_TRUE(m_broken.back().Send(PacketOf(METHOD_DELETE, 0, NameField("bundle1")) + "more"));
}

// ---- What is due for it ----

void ASoak::ExpectDeath(Item& item, pid_t pid, int order)
{
    const std::string who = item.process + "[" + std::to_string(pid) + "]";
    const std::string number = std::to_string(std::abs(order));
    const bool isSignal = order < 0;
    if (isSignal) {
        Expect("INFO " + who + " abnormal termination, signal: " + number + ".");
        Expect("ERROR " + who + " abnormal termination, signal: " + number + ".");
        Expect("INFO relaunch " + item.process + "...");
    } else {
        Expect("INFO " + who + " normal termination, exit status: " + number + ".");
    }
    if (!LeadsToRelaunch(order)) {
        Expect("INFO " + who + " does not need relaunch with exit status [" + number + "].");
        ++item.rests.due;
        return;
    }
    if (!isSignal) {
        Expect("INFO " + who + " exit status [" + number + "] need relaunch and now " + item.process +
               " is relaunching ...");
    }
    Expect("INFO " + item.process + " relaunch done.");
    ++item.relaunches.due;
    ++item.births.due;
}

void ASoak::ExpectStop(BundleInTest& bundle)
{
    for (Item* const item : bundle.items) {
        if (item->pid == 0) {
            continue; // it rests
        }
        const std::string text = item->process + "[" + std::to_string(item->pid) + "] abnormal termination, signal: 9.";
        Expect("INFO " + text);
        Expect("ERROR " + text);
        Expect("INFO normal stop " + item->process + "...");
        ++item->stops.due;
        item->pid = 0;
        ++m_count["stopped with their bundle"];
    }
}

void ASoak::ExpectStart(BundleInTest& bundle)
{
    ++bundle.starts.due;
    for (Item* const item : bundle.items) {
        ++item->births.due;
    }
}

// ---- What is seen ----

void ASoak::Follow()
{
    FollowBirths();
    FollowLog();
    FollowReplies();
    std::array<char, 16 * EVENT_SIZE> events{};
    const ssize_t size = ::read(m_fifo, events.data(), events.size());
    m_eventBytes += size > 0 ? static_cast<std::size_t>(size) : 0;
}

void ASoak::FollowBirths()
{
    std::ifstream file(Note("births"));
    file.seekg(static_cast<std::streamoff>(m_birthsRead));
    for (std::string line; std::getline(file, line) && !file.eof();) {
        m_birthsRead += line.size() + 1;
        pid_t pid = 0;
        std::string name;
        std::string doom;
        std::istringstream(line) >> pid >> name >> doom;
        Item& item = *m_itemOfName.at(name);
        EXPECT_EQ(item.pid, 0) << item.process << " runs twice";
        EXPECT_LT(item.births.seen, item.births.due) << item.process << " has been launched, and nothing called for it";
        ++item.births.seen;
        item.pid = pid;
        if (doom != "-") {
            ++m_count["died at birth"];
            ExpectDeath(item, pid, std::stoi(doom));
            item.pid = 0;
        }
    }
}

void ASoak::FollowLog()
{
    const std::vector<LogRecord>& log = daemon.Log();
    for (; m_logRead < log.size(); ++m_logRead) {
        TakeRecord(log[m_logRead]);
        TakeRecordOfBundle(log[m_logRead].message);
    }
}

void ASoak::TakeRecord(const LogRecord& record)
{
    const std::string& message = record.message;
    Account Item::*account = nullptr;
    std::string process;
    if (const std::string relaunched = Between(message, "", " relaunch done."); !relaunched.empty()) {
        account = &Item::relaunches;
        process = relaunched;
    } else if (const std::string stopped = Between(message, "normal stop ", "..."); !stopped.empty()) {
        account = &Item::stops;
        process = stopped;
    } else if (message.find("] does not need relaunch with exit status [") != std::string::npos) {
        account = &Item::rests;
        process = message.substr(0, message.find('['));
    } else if (message.find(" termination, ") == std::string::npos && message.rfind("relaunch ", 0) != 0 &&
               message.find("] need relaunch and now ") == std::string::npos) {
        return;
    }
    --m_balance[record.level + " " + message];
    if (account != nullptr) {
        ++(m_itemOfProcess.at(process)->*account).seen;
    }
}

void ASoak::TakeRecordOfBundle(const std::string& message)
{
    if (message.rfind("failed to load bundle from [" + In("junk"), 0) == 0) {
        ++m_junkFailures.seen;
        return;
    }
    for (const auto& [begin, end, account] :
         {std::tuple("bundle[", "] state changing[Starting] -> [Active]", &BundleInTest::starts),
          std::tuple("update bundle[", "] failed.", &BundleInTest::failedUpdates),
          std::tuple("unload bundle[", "]...", &BundleInTest::unloads)}) {
        const std::string name = Between(message, begin, end);
        const auto bundle = std::find_if(m_bundles.begin(), m_bundles.end(),
                                         [&name](const BundleInTest& candidate) { return candidate.name == name; });
        if (bundle != m_bundles.end()) {
            ++((*bundle).*account).seen;
        }
    }
}

void ASoak::FollowReplies()
{
    for (Client& client : m_clients) {
        while (const auto packet = client.connection.Receive(0ms)) {
            TakeReply(client, *packet);
        }
    }
    m_broken.remove_if([](const UnixClient& client) { return client.IsClosedByPeer(0ms); });
}

void ASoak::TakeReply(Client& client, const std::string& packet)
{
    if (client.open.empty()) {
        ADD_FAILURE() << "a reply to nothing, " << HeaderOf(packet).status;
        return;
    }
    const Client::Request request = client.open.front();
    client.open.pop_front();
    EXPECT_EQ(HeaderOf(packet).status, request.status) << (request.deleted != nullptr ? request.deleted->name : "");
    EXPECT_EQ(HeaderOf(packet).method, 0x80);
    m_slowestReply = std::max(m_slowestReply, std::chrono::duration_cast<Milliseconds>(Clock::now() - request.sent));
    if (request.deleted != nullptr) {
        EXPECT_FALSE(Exists(In(request.deleted->name)));
        request.deleted->isAskedFor = false;
        request.deleted->isBroken = false;
    }
}

// ---- Both together ----

bool ASoak::IsSettled() const
{
    return m_broken.empty() && m_junkFailures.Balances() &&
           std::all_of(m_clients.begin(), m_clients.end(), [](const Client& c) { return c.open.empty(); }) &&
           std::all_of(m_bundles.begin(), m_bundles.end(), [](const BundleInTest& b) { return b.IsQuiet(); });
}

bool ASoak::Settle()
{
    const bool isSettled = Eventually(DaemonRunner::PATIENCE + 4 * g_bundles * ITEMS_OF_A_BUNDLE * g_launch, [this] {
        Follow();
        return HasFailure() || (IsSettled() && MonitorSleeps());
    });
    if (!isSettled) {
        ShowWhatIsOpen();
    }
    return isSettled;
}

void ASoak::ShowWhatIsOpen() const
{
    const auto show = [](const std::string& whose, const char* what, const Account& account) {
        if (!account.Balances()) {
            ADD_FAILURE() << whose << ": " << what << " due " << account.due << ", seen " << account.seen;
        }
    };
    for (const Item& item : m_items) {
        show(item.process, "births", item.births);
        show(item.process, "relaunches", item.relaunches);
        show(item.process, "rests", item.rests);
        show(item.process, "stops", item.stops);
    }
    for (const BundleInTest& bundle : m_bundles) {
        show(bundle.name, "starts", bundle.starts);
        show(bundle.name, "failed updates", bundle.failedUpdates);
        show(bundle.name, "unloads", bundle.unloads);
    }
    show("directories that are no bundles", "failures", m_junkFailures);
    for (const Client& client : m_clients) {
        EXPECT_TRUE(client.open.empty()) << client.open.size() << " requests without a reply";
    }
    EXPECT_TRUE(m_broken.empty()) << m_broken.size() << " broken packets, and the connection is still open";
}

bool ASoak::MonitorSleeps() const
{
    return daemon.StateOfThread("bundle_monitor") == "S";
}

int ASoak::Backlog() const
{
    int backlog = 0;
    for (const Item& item : m_items) {
        backlog += item.relaunches.due - item.relaunches.seen;
    }
    return backlog;
}

int ASoak::BundlesOut() const
{
    return static_cast<int>(
        std::count_if(m_bundles.begin(), m_bundles.end(), [](const BundleInTest& bundle) { return !bundle.isIn; }));
}

bool ASoak::BringAllBack()
{
    if (!Settle()) {
        return false;
    }
    for (BundleInTest& bundle : m_bundles) {
        for (const Item* const item : bundle.items) {
            fs::remove(Note("doom." + item->program.substr(item->program.rfind('/') + 1)));
        }
        const bool rests =
            std::any_of(bundle.items.begin(), bundle.items.end(), [](const Item* item) { return item->pid == 0; });
        if (!bundle.isIn) {
            Install(bundle);
        } else if (bundle.isBroken || rests) {
            Update(bundle);
        }
    }
    return Settle();
}

void ASoak::ExpectBooksToBalance()
{
    for (const auto& [record, balance] : m_balance) {
        EXPECT_EQ(balance, 0) << "records due less records written: " << record;
    }
    ShowWhatIsOpen();
    EXPECT_EQ(m_eventBytes, static_cast<std::size_t>(m_count["bundles deleted"]) * EVENT_SIZE) << "one each";
    EXPECT_EQ(daemon.CountInLog("exit pid["), 0) << "a child that the table did not have";
    EXPECT_EQ(daemon.CountInLog("non-bundle process["), 0) << "a script, or rm";
}

void ASoak::ExpectItemsToRunOnce()
{
    std::multiset<std::string> due;
    for (const Item& item : m_items) {
        EXPECT_NE(item.pid, 0) << item.process;
        EXPECT_EQ(ProcessOf::Status(item.pid, "PPid"), std::to_string(daemon.Pid())) << item.process;
        due.insert(item.program);
    }
    EXPECT_EQ(daemon.Programs(), due);
}

void ASoak::ExpectNothingUnread()
{
    for (const Client& client : m_clients) {
        const auto last =
            client.connection.Ask(PacketOf(METHOD_DELETE, 0, NameField("nobody")), DaemonRunner::PATIENCE);
        EXPECT_EQ(last ? HeaderOf(*last).status : 0, 404) << "it is the next reply";
        EXPECT_FALSE(client.connection.Receive(0ms));
    }
}

void ASoak::Report(const Resources& before, const Resources& after) const
{
    std::cout << "seed " << m_random.Seed() << ", " << m_items.size() << " items\n";
    for (const auto& [what, count] : m_count) {
        std::cout << what << ": " << count << '\n';
    }
    int relaunches = 0;
    for (const Item& item : m_items) {
        relaunches += item.relaunches.seen;
    }
    std::cout << "relaunches: " << relaunches << "\nslowest reply: " << m_slowestReply.count()
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
    ExpectNothingUnread();
    EXPECT_TRUE(ProcessOf::Zombies(daemon.Pid()).empty());
    EXPECT_EQ(after.threads, before.threads);
    EXPECT_EQ(after.descriptors, before.descriptors);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // which keep freed memory and books of their own
    if (SLOWNESS == 1) {                                            // an emulator keeps what it has translated
        EXPECT_LE(after.kilobytes, before.kilobytes + 512);
    }
#endif
    Report(before, after);
    EXPECT_EQ(daemon.Stop().status, 0);
    if (SLOWNESS == 1) { // an emulator tells there of each item that dies of a signal
        EXPECT_EQ(daemon.Errors(), "");
    }
}
