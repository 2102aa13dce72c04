// bundlectl status after random histories: bundles come, change and go, items die and rest, the server is killed, its
// log is rotated and parts of it are lost. The test knows the true state, because it has caused it or sees it in /proc.
// status must agree.
#include "bundlectl/known_history.h"
#include "bundlectl/verb_test.h"

#include "support/private_mnt.h"
#include "support/process_info.h"
#include "support/random.h"
#include "support/scale.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

constexpr const char* ITEMS[] = {"one", "two", "three"};
constexpr int MOST_BUNDLES = 4;
constexpr unsigned SEED = 20261122;

class RandomHistory : public VerbTest {
public:
    void SetUp() override
    {
        daemon.SetEnvironment("LD_PRELOAD", TEST_HURRY);
        daemon.SetEnvironment("ASAN_OPTIONS", "verify_asan_link_order=0");
        std::cout << "the seed is " << m_random.Seed() << '\n';
    }

    void Live(int steps)
    {
        for (int i = 0; i < 2; ++i) {
            AddBundle();
        }
        daemon.Start();
        StartItems();
        ASSERT_TRUE(IsTold("the start"));
        for (int step = 0; step < steps && !HasFailure(); ++step) {
            const std::string what = TakeStep();
            std::cout << step << ": " << what << std::endl;
            ASSERT_TRUE(IsTold(what));
        }
    }

private:
    std::string TakeStep()
    {
        const int number = m_random.Below(100);
        if (number < 40) {
            return EndItem();
        }
        if (number < 55) {
            return UpdateBundle();
        }
        if (number < 65) {
            return Rotate();
        }
        if (number < 70) {
            return KillServer();
        }
        const auto count = static_cast<int>(m_known.bundles.size());
        return count > 1 && (count == MOST_BUNDLES || number < 80) ? TakeBundleAway() : AddBundleToServer();
    }

    KnownBundle& AnyBundle()
    {
        auto place = m_known.bundles.begin();
        std::advance(place, m_random.Below(static_cast<int>(m_known.bundles.size())));
        return place->second;
    }

    std::string ManifestOf(const KnownBundle& bundle) const
    {
        std::string text = "[global]\nbundle_name = " + bundle.name + "\nbundle_load_mode = 0\n";
        for (const KnownItem& item : bundle.items) {
            text += "[" + item.name + "]\nitem_name = " + item.name + "\n";
        }
        return text;
    }

    /// Gives the bundle one to three items. Remaining items keep their known state.
    void ChooseItems(KnownBundle& bundle)
    {
        std::vector<KnownItem> items;
        const int most = static_cast<int>(std::size(ITEMS));
        const int kept = 1 + m_random.Below(most);
        for (int i = 0; i < kept; ++i) {
            KnownItem item;
            item.name = ITEMS[i];
            for (const KnownItem& former : bundle.items) {
                item = former.name == item.name ? former : item;
            }
            items.push_back(item);
        }
        bundle.items = items;
    }

    KnownBundle& AddBundle()
    {
        const std::string name = "bundle" + std::to_string(m_number++);
        KnownBundle& bundle = m_known.bundles[name];
        bundle.name = name;
        ChooseItems(bundle);
        BundleBuilder builder = staging.Bundle(name);
        for (const char* const item : ITEMS) {
            builder.Copy(item, OBEDIENT_ITEM);
        }
        builder.Manifest(ManifestOf(bundle)).Write();
        MoveIn(name);
        return bundle;
    }

    std::string AddBundleToServer()
    {
        KnownBundle& bundle = AddBundle();
        for (KnownItem& item : bundle.items) {
            AwaitLaunch(bundle, item);
        }
        return "added " + bundle.name;
    }

    /// Waits for a process of the item that the server has launched and that is not known yet.
    void AwaitLaunch(const KnownBundle& bundle, KnownItem& item)
    {
        const std::string program = collection / (bundle.name + "/bin/" + item.name);
        const std::string parent = std::to_string(daemon.Pid());
        const pid_t former = item.pid;
        EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [&] {
            for (const pid_t pid : ProcessOf::All()) {
                if (pid != former && ProcessOf::Executable(pid) == program &&
                    ProcessOf::Status(pid, "PPid") == parent) {
                    item.pid = pid;
                    return true;
                }
            }
            return false;
        })) << program;
        ++item.launches;
    }

    void StartItems()
    {
        for (auto& [name, bundle] : m_known.bundles) {
            for (KnownItem& item : bundle.items) {
                AwaitLaunch(bundle, item);
            }
        }
    }

    std::string EndItem()
    {
        struct End {
            int signal;
            const char* json;
            bool rests;
        };
        constexpr End ends[] = {
            {SIGUSR1, R"("status":5,"name":"status 5"})", true},  {SIGUSR2, R"("status":2,"name":"status 2"})", false},
            {SIGSEGV, R"("signal":11,"name":"SIGSEGV"})", false}, {SIGKILL, R"("signal":9,"name":"SIGKILL"})", false},
            {SIGTERM, R"("signal":15,"name":"SIGTERM"})", false},
        };
        KnownBundle& bundle = AnyBundle();
        KnownItem& item = m_random.OneOf(bundle.items);
        const End& end = m_random.OneOf(ends);
        if (item.pid == 0) {
            return "nothing";
        }
        item.lastEnd = "\"pid\":" + std::to_string(item.pid) + "," + end.json;
        ::kill(item.pid, end.signal);
        if (end.rests) {
            item.pid = 0;
        } else {
            ++item.relaunches;
            item.relaunchTimes.push_back(KnownItem::Clock::now());
            AwaitLaunch(bundle, item);
        }
        return bundle.name + "." + item.name + " ended by signal " + std::to_string(end.signal);
    }

    std::string UpdateBundle()
    {
        KnownBundle& bundle = AnyBundle();
        for (KnownItem& item : bundle.items) {
            if (item.pid != 0) {
                item.lastEnd = "\"pid\":" + std::to_string(item.pid) + R"(,"signal":9,"name":"SIGKILL"})";
            }
        }
        ChooseItems(bundle);
        WriteFile(Note("manifest"), ManifestOf(bundle) + "; " + std::to_string(m_number++) + "\n");
        fs::rename(Note("manifest"), collection / (bundle.name + "/BundleManifest.ini"));
        for (KnownItem& item : bundle.items) {
            AwaitLaunch(bundle, item);
        }
        return "updated " + bundle.name;
    }

    std::string TakeBundleAway()
    {
        const std::string name = AnyBundle().name;
        m_known.bundles.erase(name);
        if (m_random.InPercent(50)) {
            EXPECT_EQ(RequestDelete(name), 200);
            return "deleted " + name;
        }
        fs::remove_all(collection / name);
        return "removed " + name;
    }

    /// Rotates like logrotate with "copytruncate". Sometimes removes the rotated file.
    std::string Rotate()
    {
        const std::string log = daemon.LogFile();
        if (m_random.InPercent(25)) {
            for (const char* const ending : {".1", ".2.gz", ".3.gz"}) {
                m_known.isLogCut = fs::remove(log + ending) || m_known.isLogCut;
            }
            return "lost a part of the log";
        }
        m_known.isLogCut = fs::exists(log + ".3.gz") || m_known.isLogCut;
        for (const auto& [from, to] : {std::pair(".2.gz", ".3.gz"), std::pair(".1", ".2")}) {
            if (fs::exists(log + from)) {
                fs::rename(log + from, log + to);
            }
        }
        if (fs::exists(log + ".2")) {
            RunShell("gzip -f " + log + ".2");
        }
        fs::copy_file(log, log + ".1");
        fs::resize_file(log, 0);
        return "rotated the log";
    }

    std::string KillServer()
    {
        daemon.Stop(SIGKILL);
        m_known.isLogCut = false;
        for (auto& [name, bundle] : m_known.bundles) {
            for (KnownItem& item : bundle.items) {
                KnownItem fresh;
                fresh.name = item.name;
                fresh.further = item.pid != 0 ? std::vector<pid_t>{item.pid} : std::vector<pid_t>();
                item = fresh;
            }
        }
        daemon.Start();
        StartItems();
        EXPECT_TRUE(IsTold("killed the server"));
        EXPECT_EQ(Run({"orphans", "--end"}).status, 0);
        for (auto& [name, bundle] : m_known.bundles) {
            for (KnownItem& item : bundle.items) {
                item.further.clear();
            }
        }
        return "killed the server and ended what it left";
    }

    /// Whether status shows the true state, within the time that the server needs.
    ::testing::AssertionResult IsTold(const std::string& what)
    {
        ::testing::AssertionResult result = ::testing::AssertionFailure();
        Eventually(std::chrono::seconds(20), [&] {
            const Ended ended = Run({"status", "--json"});
            result = m_known.Matches(ended.output, ended.status);
            return static_cast<bool>(result);
        });
        return result << "\nafter step " << what;
    }

    Random m_random{IsLongForm() ? std::nullopt : std::optional<unsigned>(SEED)};
    KnownHistory m_known;
    int m_number = 0;
};

} // namespace

TEST_F(RandomHistory, IsToldByStatus)
{
    Live(Scaled(10, 600));
}
