// bundlectl lint, called on the command line.
#include "bundlectl/verb_test.h"
#include "support/collection_builder.h"
#include "support/files.h"
#include "support/program.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

class LintVerb : public ::testing::Test {
public:
    static Ended Run(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), "lint");
        return RunToEnd(BUNDLECTL_PROGRAM, std::move(arguments));
    }

    CollectionBuilder collection;
};

} // namespace

TEST_F(LintVerb, EndsWithZeroWhenItFindsNothing)
{
    collection.Bundle("radio").Write();
    const Ended ended = Run({collection / "radio"});
    EXPECT_EQ(ended.status, 0) << ended.output << ended.errors;
    EXPECT_EQ(ended.output, "1 bundle: 0 errors, 0 warnings.\n");
}

TEST_F(LintVerb, NamesFileLineRuleAndWayOut)
{
    collection.Bundle("radio").Mode("7").Write();
    const Ended ended = Run({collection.Path()});
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(Tells(ended, (collection / "radio/BundleManifest.ini:3: error: ")));
    EXPECT_TRUE(Tells(ended, "[mode-refused]\n    Way out: Write bundle_load_mode = 0 or 1."));
}

TEST_F(LintVerb, CountsWarningsOnlyWhenItIsStrict)
{
    collection.Bundle("radio").Write();
    WriteFile(collection / "radio/BundleManifest.ini", "[global]\r\nbundle_name=radio\r\nbundle_load_mode=0\r\n");
    EXPECT_EQ(Run({collection / "radio"}).status, 0);
    EXPECT_EQ(Run({"--strict", collection / "radio"}).status, 1);
}

TEST_F(LintVerb, PrintsJsonThatFollowsTheSchema)
{
    collection.Bundle("radio").Mode("7").Item("tunerd").Write();
    const Ended ended = Run({"--json", collection / "radio"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(FollowsSchema(ended.output));
    EXPECT_TRUE(Tells(ended, "\"rule\":\"item-missing\",\"severity\":\"error\""));
}

TEST_F(LintVerb, PrintsSarif)
{
    collection.BundleIn("radio tuner").Mode("7").Write();
    const Ended ended = Run({"--format=sarif", collection / "radio tuner"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_TRUE(Tells(ended, "\"version\":\"2.1.0\""));
    EXPECT_TRUE(Tells(ended, "\"ruleId\":\"mode-refused\",\"level\":\"error\""));
    EXPECT_TRUE(Tells(ended, "/radio%20tuner/BundleManifest.ini\"},\"region\":{\"startLine\":3}"));
    WriteFile(collection / "out.sarif", ended.output);
    const Ended read = RunToEnd("/usr/bin/env", {"python3", "-m", "json.tool", collection / "out.sarif"});
    EXPECT_EQ(read.status, 0) << read.errors;
}

TEST_F(LintVerb, ExplainsARule)
{
    const Ended ended = Run({"--explain", "item-missing"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_TRUE(Tells(ended, "error item-missing: an item's file is missing."));
    EXPECT_TRUE(Has(Run({"--explain", "item-mising"}).errors, "Did you mean \"item-missing\"?"));
    EXPECT_TRUE(Tells(Run({"--rules"}), "requirement-circle"));
}

TEST_F(LintVerb, RefusesWhatIsNoDirectory)
{
    EXPECT_EQ(Run({}).status, 2);
    EXPECT_EQ(Run({collection / "nothing"}).status, 2);
    EXPECT_EQ(Run({"--arch", "abacus", collection.Path()}).status, 2);
}
