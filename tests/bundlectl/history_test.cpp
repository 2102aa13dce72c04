// The model's history from the log of a real server.
#include "model/attribution.h"
#include "model/history.h"
#include "model/log_reader.h"

#include "support/private_mnt.h"
#include "system/system_test.h"

#include <csignal>
#include <string>
#include <vector>

using Model::Attribution;
using Model::BundleHistory;
using Model::BundleState;
using Model::Fact;
using Model::History;
using Model::ItemEnd;
using Model::ItemHistory;
using Model::LogReader;
using Model::ServerHistory;

namespace {

const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

class TheHistory : public SystemTest {
public:
    /// Reads the daemon's log again.
    const ServerHistory& Read()
    {
        m_history = History();
        Attribution attribution([this](const Fact& fact) { m_history.Take(fact); });
        LogReader reader(Model::ReadLogFile(daemon.LogFile()));
        ReadAll(reader, attribution);
        const ServerHistory* const server = m_history.Find(daemon.Pid());
        return server != nullptr ? *server : m_none;
    }

    BundleHistory Bundle(const std::string& name)
    {
        const BundleHistory* const bundle = Read().Find(name);
        return bundle != nullptr ? *bundle : BundleHistory();
    }

    ItemHistory Item(const std::string& bundle, const std::string& item)
    {
        for (const ItemHistory& candidate : Bundle(bundle).items) {
            if (candidate.name == item) {
                return candidate;
            }
        }
        return {};
    }

    const History& All() const { return m_history; }

private:
    History m_history;
    ServerHistory m_none;
};

} // namespace

TEST_F(TheHistory, KnowsABundleThatRuns)
{
    collection.Bundle("base").Write();
    collection.Bundle("radio")
        .Requires("base")
        .Copy("tuner", TEST_SLEEPER)
        .Item("poll.sh", Shell("sleep 1000"))
        .Write();
    ASSERT_TRUE(daemon.StartServing());
    const pid_t tuner = daemon.WaitForItem("radio", "tuner");
    const pid_t poll = daemon.WaitForItem("radio", "poll.sh");

    const ServerHistory& server = Read();
    EXPECT_TRUE(server.isWhole);
    EXPECT_TRUE(server.ready);
    EXPECT_TRUE(server.serving);
    EXPECT_EQ(server.collection, collection.Path());
    EXPECT_EQ(server.monitor, ServerHistory::Monitor::RUNS);
    EXPECT_EQ(server.bundles.size(), 2U);
    const BundleHistory radio = Bundle("radio");
    EXPECT_EQ(radio.state, BundleState::ACTIVE);
    EXPECT_EQ(radio.path, collection / "radio");
    EXPECT_EQ(radio.mode, 0);
    EXPECT_EQ(radio.required, std::vector<std::string>{"base"});
    EXPECT_EQ(Item("radio", "tuner").pid, tuner);
    EXPECT_EQ(Item("radio", "poll.sh").pid, poll);
    EXPECT_EQ(Item("radio", "poll.sh").executed, collection / "radio/./bin/poll.sh");
    EXPECT_EQ(Item("radio", "tuner").launches, 1U);
}

TEST_F(TheHistory, KnowsDeathsAndWhatFollowed)
{
    collection.Bundle("radio")
        .Copy("tuner", TEST_SLEEPER)
        .Item("once.sh", Shell("exit 3"))
        .Item("twice.sh", Shell(ExitOnFirstRun(Note("twice"), 6)))
        .Write();
    ASSERT_TRUE(daemon.StartServing());
    const pid_t first = daemon.WaitForItem("radio", "tuner");
    ::kill(first, SIGABRT);
    const pid_t second = daemon.WaitForItem("radio", "tuner", 2);
    ASSERT_NE(second, 0);
    ASSERT_TRUE(daemon.WaitForLog("radio.twice.sh relaunch done."));
    ASSERT_TRUE(daemon.WaitForLog("radio.tuner relaunch done."));

    const ItemHistory tuner = Item("radio", "tuner");
    EXPECT_EQ(tuner.pid, second);
    EXPECT_EQ(tuner.launches, 2U);
    EXPECT_EQ(tuner.relaunches, 1U);
    EXPECT_EQ(tuner.relaunchTimes.size(), 1U);
    ASSERT_EQ(tuner.ends.size(), 1U);
    EXPECT_EQ(tuner.ends[0].pid, first);
    EXPECT_TRUE(tuner.ends[0].isSignal);
    EXPECT_EQ(tuner.ends[0].number, SIGABRT);
    EXPECT_EQ(tuner.ends[0].then, ItemEnd::RELAUNCHED);

    const ItemHistory once = Item("radio", "once.sh");
    EXPECT_EQ(once.pid, 0);
    ASSERT_EQ(once.ends.size(), 1U);
    EXPECT_FALSE(once.ends[0].isSignal);
    EXPECT_EQ(once.ends[0].number, 3);
    EXPECT_EQ(once.ends[0].then, ItemEnd::RESTS);

    const ItemHistory twice = Item("radio", "twice.sh");
    EXPECT_NE(twice.pid, 0);
    ASSERT_EQ(twice.ends.size(), 1U);
    EXPECT_EQ(twice.ends[0].number, 6);
    EXPECT_EQ(twice.ends[0].then, ItemEnd::RELAUNCHED);
}

TEST_F(TheHistory, KnowsAProgramThatIsMissing)
{
    collection.Bundle("radio").Item("tuner").Write();
    ASSERT_TRUE(daemon.StartServing());
    ASSERT_TRUE(daemon.WaitForLog("does not need relaunch"));
    const ItemHistory tuner = Item("radio", "tuner");
    EXPECT_EQ(tuner.executeError, ENOENT);
    EXPECT_EQ(tuner.pid, 0);
    EXPECT_EQ(Bundle("radio").state, BundleState::ACTIVE);
}

TEST_F(TheHistory, KnowsWhatWasRefusedAndWhy)
{
    collection.BundleIn("broken").Manifest("[global]\nbundle_name = x\n").Write();
    collection.Bundle("odd").Mode("7").Write();
    collection.Bundle("lonely").Requires("nowhere").Write();
    collection.Bundle("tuner").ThreadMode().Item("tunerd").Write();
    ASSERT_TRUE(daemon.StartServing());
    const ServerHistory& server = Read();
    ASSERT_EQ(server.refused.count(collection / "broken"), 1U);
    EXPECT_EQ(server.refused.at(collection / "broken").problem.reason, "Not found: global.bundle_load_mode");
    ASSERT_EQ(server.refused.count(collection / "odd"), 1U);
    EXPECT_EQ(server.refused.at(collection / "odd").problem.refusal, Fact::REFUSED_MODE);
    EXPECT_EQ(server.refused.at(collection / "odd").bundle, "odd");
    const BundleHistory lonely = Bundle("lonely");
    EXPECT_EQ(lonely.state, BundleState::GONE);
    ASSERT_TRUE(lonely.problem);
    EXPECT_EQ(lonely.problem->kind, Fact::RESOLVE_FAILED);
    EXPECT_EQ(lonely.problem->reason, "Invalid argument: required bundle :[nowhere] not found.");
    const BundleHistory tuner = Bundle("tuner");
    EXPECT_EQ(tuner.state, BundleState::GONE);
    ASSERT_TRUE(tuner.problem);
    EXPECT_EQ(tuner.problem->kind, Fact::START_FAILED);
}

TEST_F(TheHistory, KnowsADuplicate)
{
    collection.BundleIn("one").Name("radio").Write();
    collection.BundleIn("two").Name("radio").Write();
    ASSERT_TRUE(daemon.StartServing());
    const ServerHistory& server = Read();
    ASSERT_EQ(server.refused.size(), 1U);
    EXPECT_EQ(server.refused.begin()->second.problem.refusal, Fact::REFUSED_DUPLICATE);
    EXPECT_EQ(server.refused.begin()->second.bundle, "radio");
    EXPECT_EQ(Bundle("radio").state, BundleState::ACTIVE);
}

TEST_F(TheHistory, KnowsThreads)
{
    collection.Bundle("radio")
        .ThreadMode()
        .Library("sleeps.so", "sleep_forever", TEST_LIBRARY)
        .Library("missing.so", "run")
        .Library("none.so", "no_such_function", TEST_LIBRARY)
        .Write();
    ASSERT_TRUE(daemon.StartServing());
    ASSERT_TRUE(daemon.WaitForLog("find entry func[no_such_function] fail"));
    ASSERT_TRUE(daemon.WaitForLog("open dynamic lib["));
    EXPECT_NE(Item("radio", "missing.so").failure.find("open dynamic lib["), std::string::npos);
    EXPECT_NE(Item("radio", "none.so").failure.find("find entry func["), std::string::npos);
    EXPECT_EQ(Item("radio", "missing.so").pid, 0);
    EXPECT_EQ(Bundle("radio").mode, 1);
}

TEST_F(TheHistory, KnowsScriptsAndHowLongTheyRan)
{
    collection.Bundle("radio").Install(Shell("sleep 0.3")).Write();
    ASSERT_TRUE(daemon.StartServing());
    const BundleHistory radio = Bundle("radio");
    ASSERT_EQ(radio.scripts.size(), 1U);
    EXPECT_EQ(radio.scripts[0].name, "install.sh");
    ASSERT_TRUE(radio.scripts[0].took);
    EXPECT_GE(*radio.scripts[0].took, std::chrono::milliseconds(300));
    EXPECT_TRUE(Read().running.empty());
}

TEST_F(TheHistory, KnowsAScriptThatDoesNotEnd)
{
    collection.Bundle("radio").Install(Shell("exec sleep 1000")).Write();
    daemon.Start();
    ASSERT_TRUE(daemon.WaitForLog("run script["));
    const ServerHistory& server = Read();
    ASSERT_EQ(server.running.size(), 1U);
    EXPECT_EQ(server.running.begin()->second.name, "install.sh");
    EXPECT_EQ(server.running.begin()->second.bundle, "radio");
    EXPECT_FALSE(server.ready);
}

TEST_F(TheHistory, KnowsADeletedBundle)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    ASSERT_EQ(RequestDelete("radio"), 200);
    ASSERT_TRUE(daemon.WaitForLog("normal stop radio.tuner..."));
    EXPECT_EQ(Bundle("radio").state, BundleState::GONE);
    const ItemHistory tuner = Item("radio", "tuner");
    ASSERT_EQ(tuner.ends.size(), 1U);
    EXPECT_EQ(tuner.ends[0].then, ItemEnd::STOPPED);
}

TEST_F(TheHistory, KnowsABundleThatCameAndCouldNotStart)
{
    ASSERT_TRUE(daemon.StartServing());
    staging.Bundle("lonely").Requires("nowhere").Write();
    MoveIn("lonely");
    ASSERT_TRUE(daemon.WaitForLog("load bundle[lonely] done."));
    staging.Bundle("other").Write();
    MoveIn("other");
    ASSERT_TRUE(daemon.WaitForLog("bundle[other] state changing[Starting] -> [Active]"));
    const BundleHistory lonely = Bundle("lonely");
    EXPECT_EQ(lonely.state, BundleState::GONE);
    ASSERT_TRUE(lonely.problem);
    EXPECT_EQ(lonely.problem->kind, Fact::HOT_START_FAILED);
    EXPECT_EQ(lonely.problem->reason, "");
}

TEST_F(TheHistory, KnowsAnUpdate)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    const pid_t before = daemon.WaitForItem("radio", "tuner");
    collection.Bundle("radio").Item("tuner").Copy("clock", TEST_SLEEPER).Write();
    const pid_t after = daemon.WaitForItem("radio", "tuner", 2);
    ASSERT_NE(daemon.WaitForItem("radio", "clock"), 0);
    ASSERT_TRUE(daemon.WaitForLog("bundle[radio] state changing[Starting] -> [Active]", 2));
    const ItemHistory tuner = Item("radio", "tuner");
    EXPECT_EQ(tuner.pid, after);
    EXPECT_EQ(tuner.launches, 2U);
    EXPECT_EQ(tuner.relaunches, 0U);
    ASSERT_EQ(tuner.ends.size(), 1U);
    EXPECT_EQ(tuner.ends[0].pid, before);
    EXPECT_EQ(tuner.ends[0].then, ItemEnd::STOPPED);
    EXPECT_EQ(Bundle("radio").items.size(), 2U);
}

// The end of a removed item follows the new manifest in the log. Its launch may have been rotated away.
TEST_F(TheHistory, DoesNotTakeARemovedItemForOneOfTheNewManifestWhenTheLogIsCut)
{
    collection.Bundle("radio").Copy("tuner", TEST_SLEEPER).Copy("clock", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    ASSERT_NE(daemon.WaitForItem("radio", "clock"), 0);
    collection.Bundle("radio").Item("tuner").Copy("mixer", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.WaitForLog("bundle[radio] state changing[Starting] -> [Active]", 2));
    ASSERT_TRUE(daemon.WaitForLog("normal stop radio.clock..."));
    const std::string log = ReadFile(daemon.LogFile());
    const std::size_t update = log.rfind('\n', log.find("dir item modified event happen.")) + 1;
    WriteFile(daemon.LogFile(), log.substr(update));
    EXPECT_TRUE(Item("radio", "tuner").isInManifest);
    const ItemHistory clock = Item("radio", "clock");
    EXPECT_EQ(clock.ends.size(), 1U);
    EXPECT_FALSE(clock.isInManifest);
}
