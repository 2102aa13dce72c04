// The server does what bundlectl has planned.
#include "author/plan.h"

#include "bundlectl/verb_test.h"
#include "support/private_mnt.h"
#include "support/random.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

using Plans::Change;
using Plans::MakePlan;
using Plans::Plan;
using Plans::Step;

class APlan : public VerbTest {
public:
    /// The steps as words: "start radio".
    static std::vector<std::string> WordsOf(const Plan& plan)
    {
        constexpr const char* words[] = {"load", "refuse", "resolve", "start", "stop", "update", "unload", "end"};
        std::vector<std::string> steps;
        for (const Step& step : plan.steps) {
            steps.push_back(std::string(words[step.kind]) + " " + step.bundle);
        }
        return steps;
    }

    std::vector<std::string> After(Change::Kind kind, const std::string& subject) const
    {
        return WordsOf(MakePlan(collection.Path(), {kind, subject}));
    }
};

/// Whether a record of the server is one that a plan has: about loading, refusals and states.
bool IsPlanned(const LogRecord& record)
{
    const std::string& text = record.message;
    return record.level == "ERROR" || Has(text, "] state changing[") || text.compare(0, 17, "load bundle from ") == 0 ||
           (text.compare(0, 12, "load bundle[") == 0 && Has(text, "] success."));
}

/// Bundles with random requirements, some of them with faults.
void WriteRandomBundles(const CollectionBuilder& collection, Random& random)
{
    const auto below = [&random](int most) { return random.Below(most); };
    const int count = below(9);
    for (int i = 0; i < count; ++i) {
        BundleBuilder bundle = collection.BundleIn("d" + std::to_string(below(20)));
        bundle.Name("b" + std::to_string(below(10)));
        for (int required = below(3); required > 0; --required) {
            bundle.Requires("b" + std::to_string(below(11)));
        }
        switch (below(12)) {
        case 0:
            bundle.Mode("7");
            break;
        case 1:
            bundle.Manifest("[global]\nbundle_name=x\n");
            break;
        case 2:
            bundle.NoManifest();
            break;
        case 3:
            bundle.ThreadMode().Item("tunerd");
            break;
        case 4:
            bundle.Manifest("[global]\nbundle_name = b1\nbundle_load_mode = one\n");
            break;
        default:
            break;
        }
        bundle.Write();
    }
}

} // namespace

TEST_F(APlan, IsWhatTheServerDoes)
{
    constexpr int collections = 200;
    Random random;
    std::size_t records = 0;
    for (int i = 0; i < collections; ++i) {
        const CollectionBuilder bundles;
        WriteRandomBundles(bundles, random);
        const Plan plan = MakePlan(bundles.Path(), {});
        DaemonRunner server(bundles.Path());
        ASSERT_TRUE(server.StartServing());
        std::vector<std::string> done;
        for (const LogRecord& record : server.Log()) {
            if (record.pid == server.Pid() && IsPlanned(record)) {
                done.push_back(record.message);
            }
        }
        server.Stop(SIGTERM);
        records += done.size();
        ASSERT_EQ(plan.records, done) << "collection " << i << ", seed " << random.Seed();
    }
    EXPECT_GT(records, 1000U) << "there was much to compare";
}

TEST_F(APlan, NamesStepsInTheirOrder)
{
    collection.Bundle("a").Requires("b").Item("itemd", "#!/bin/sh\n").Write();
    collection.Bundle("b").Install("#!/bin/sh\ntouch " + Note("ran") + "\n").Write();
    collection.Bundle("lonely").Requires("nowhere").Uninstall("#!/bin/sh\n").Write();
    const Ended ended = Run({"plan", collection.Path()});
    EXPECT_EQ(ended.status, 1) << "there are changes";
    EXPECT_TRUE(Tells(ended, "load b " + (collection / "b") + ", install.sh runs\n"));
    EXPECT_TRUE(Tells(ended, "start b\nstart a, 1 s for its items\n"));
    EXPECT_TRUE(Tells(ended,
                      "unload lonely, uninstall.sh runs\n    failed to resolve bundle[lonely] :Invalid argument: "
                      "required bundle :[nowhere] not found.\n"));
    EXPECT_TRUE(Tells(ended, "It takes 1 s at least.\n"));
    EXPECT_TRUE(FollowsSchema(Run({"plan", "--json", collection.Path()}).output));
    EXPECT_FALSE(Exists(Note("ran"))) << "nothing is run";
}

TEST_F(APlan, OfAnEmptyCollectionIsEmpty)
{
    const Ended ended = Run({"plan", collection.Path()});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.output, "Nothing changes.\n");
    EXPECT_EQ(Run({"plan", "/nowhere/at/all"}).status, 2);
}

TEST_F(APlan, TellsWhatEndsTheStart)
{
    collection.Bundle("a").Item("ab").Write();
    const Ended ended = Run({"plan", collection.Path()});
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(Tells(ended, "end with status 70"));
    EXPECT_TRUE(Tells(ended, "item name[ab] is shorter than three characters"));
}

TEST_F(APlan, FollowsAnAddition)
{
    using Words = std::vector<std::string>;
    collection.Bundle("a").Write();
    staging.Bundle("b").Requires("a").Write();
    staging.Bundle("c").Requires("nowhere").Write();
    staging.BundleIn("d").Name("a").Write();
    EXPECT_EQ(After(Change::ADD, staging / "b"), (Words{"load b", "resolve b", "start b"}));
    EXPECT_EQ(After(Change::ADD, staging / "c"), (Words{"load c", "unload c"}));
    EXPECT_EQ(After(Change::ADD, staging / "d"), Words{"refuse "});
    EXPECT_EQ(After(Change::ADD, staging / "nothing"), Words{"refuse "});
}

TEST_F(APlan, FollowsADeletion)
{
    collection.Bundle("a").Write();
    collection.Bundle("b").Requires("a").Write();
    collection.Bundle("c").Requires("b").Write();
    EXPECT_EQ(After(Change::DELETE, "a"), (std::vector<std::string>{"stop a", "unload a"}));
    const Ended ended = Run({"plan", collection.Path(), "--after", "delete", "a"});
    EXPECT_TRUE(Tells(ended, "affected b: goes on; it will not start at the next start of the server"));
    EXPECT_TRUE(Tells(ended, "affected c: goes on; it will not start at the next start of the server"));
    EXPECT_EQ(Run({"plan", collection.Path(), "--after", "delete", "x"}).status, 3);
    EXPECT_EQ(Run({"plan", collection.Path(), "--after", "mend", "x"}).status, 2);
}

TEST_F(APlan, SaysWhatIsWrongWithItsUse)
{
    collection.Bundle("radio").Write();
    const Ended bundle = Run({"plan", collection.Path(), "--after", "delete", "rado"});
    EXPECT_EQ(bundle.status, 3);
    EXPECT_EQ(bundle.errors, "bundlectl: no bundle of this collection that loads has the name \"rado\". Did you mean "
                             "\"radio\"?\n");
    for (const char* const change : {"add", "update"}) {
        const Ended missing = Run({"plan", collection.Path(), "--after", change, "/nowhere"});
        EXPECT_EQ(missing.status, 2);
        EXPECT_EQ(missing.errors, "bundlectl: /nowhere is no directory. Name the directory of the bundle.\n");
    }
    const Ended place = Run({"plan", "/nowhere"});
    EXPECT_EQ(place.status, 2);
    EXPECT_EQ(place.errors, "bundlectl: /nowhere is no directory. Name the directory of the bundles.\n");
}

TEST_F(APlan, FollowsAnUpdate)
{
    using Words = std::vector<std::string>;
    collection.Bundle("a").Write();
    staging.Bundle("a").Item("itemd").Write();
    EXPECT_EQ(After(Change::UPDATE, staging / "a"), (Words{"update a", "stop a", "start a"}));
    staging.BundleIn("a").Manifest("[global]\nbundle_name = a\n").Write();
    EXPECT_EQ(After(Change::UPDATE, staging / "a"), Words{"update a"}) << "the old one goes on";
    staging.BundleIn("a").Manifest("[global]\nbundle_name = x\nbundle_load_mode = 0\n").Write();
    const Ended ended = Run({"plan", collection.Path(), "--after", "update", staging / "a"});
    EXPECT_TRUE(Tells(ended, "not found"));
}
