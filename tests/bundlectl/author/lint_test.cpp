// Tests each rule of lint on manifests and collections: once violated and once kept.
#include "bundlectl/author/lint_fixture.h"

#include <filesystem>
#include <fstream>
#include <set>

namespace fs = std::filesystem;
using namespace LintTest;

namespace {

class LintOfAManifest : public LintFindings {};
class LintOfACollection : public LintFindings {};

} // namespace

TEST_F(LintFindings, FindsNothingInAGoodBundle)
{
    collection.Bundle("radio")
        .Item("tunerd", SCRIPT)
        .Item("watch.sh", "exec /bin/true\n")
        .Install(SCRIPT)
        .Update(SCRIPT)
        .Uninstall(SCRIPT)
        .Write();
    EXPECT_EQ(IdsOf("radio"), Found{});
    EXPECT_EQ(result.bundles, 1U);
    EXPECT_FALSE(result.HasErrors());
}

TEST_F(LintFindings, RefusesAPathThatIsNoDirectory)
{
    EXPECT_EQ(Ids({collection / "nothing"}), Found{});
    EXPECT_NE(result.trouble, "");
    options.machine = "abacus";
    EXPECT_EQ(Ids({collection.Path()}), Found{});
    EXPECT_NE(result.trouble.find("there is no machine \"abacus\""), std::string::npos);
}

TEST_F(LintFindings, HasARuleOnceWithAllItsTexts)
{
    std::set<std::string> ids;
    for (const Lint::Rule* const rule : Lint::AllRules()) {
        EXPECT_TRUE(ids.insert(rule->id).second) << rule->id;
        EXPECT_NE(std::string(rule->summary), "");
        EXPECT_EQ(std::string(rule->reason).back(), '.') << rule->id;
        EXPECT_EQ(std::string(rule->remedy).back(), '.') << rule->id;
        EXPECT_EQ(Lint::FindRule(rule->id), rule);
    }
    EXPECT_EQ(Lint::FindRule("no-such-rule"), nullptr);
}

TEST_F(LintOfAManifest, MustBeThere)
{
    collection.BundleIn("radio").NoManifest().Write();
    EXPECT_EQ(IdsOf("radio"), Found{"manifest-missing"});
    EXPECT_EQ(IdsOfManifest(HEAD), Found{});
}

TEST_F(LintOfAManifest, MustBeReadable)
{
    EXPECT_EQ(IdsOfManifest("[global]\nbundle_name = radio\nbundle_load_mode = fast\n"), Found{"manifest-broken"});
    EXPECT_EQ(LineOf("manifest-broken"), 3);
    EXPECT_EQ(TextOf("manifest-broken"), "Syntax error: Not a valid integer: fast");
}

TEST_F(LintOfAManifest, MustNotBeTooLong)
{
    EXPECT_EQ(IdsOfManifest(HEAD + std::string(std::size_t{1024} * 1024, ';')), Found{"manifest-too-long"});
    EXPECT_EQ(IdsOfManifest(HEAD + std::string(1024, ';')), Found{});
}

TEST_F(LintOfAManifest, HasNoByteOrderMark)
{
    const Found ids = IdsOfManifest("\xef\xbb\xbf" + std::string(HEAD));
    EXPECT_EQ(std::count(ids.begin(), ids.end(), "manifest-byte-order-mark"), 1);
    EXPECT_EQ(LineOf("manifest-byte-order-mark"), 1);
}

TEST_F(LintOfAManifest, EndsItsLinesLikeUnix)
{
    EXPECT_EQ(IdsOfManifest("[global]\nbundle_name = radio\r\nbundle_load_mode = 0\n"), Found{"manifest-crlf"});
    EXPECT_EQ(LineOf("manifest-crlf"), 2);
}

TEST_F(LintOfAManifest, HasKnownKeysOnly)
{
    EXPECT_EQ(IdsOfManifest(std::string(HEAD) + "bundle_dependancies = base\n"), Found{"key-unknown"});
    EXPECT_EQ(LineOf("key-unknown"), 4);
    EXPECT_NE(TextOf("key-unknown").find("Did you mean \"bundle_dependencies\"?"), std::string::npos);
    EXPECT_EQ(IdsOfManifest("[global]\nBUNDLE_NAME = radio\nbundle_load_mode = 0\n"), Found{});
}

TEST_F(LintOfAManifest, HasAKeyOnce)
{
    EXPECT_EQ(IdsOfManifest(std::string(HEAD) + "Bundle_Name = radio\n"), Found{"key-twice"});
    EXPECT_EQ(LineOf("key-twice"), 4);
}

TEST_F(LintOfAManifest, HasNoKeyBeforeTheFirstSection)
{
    EXPECT_EQ(IdsOfManifest("# radio\n" + std::string(HEAD)), (Found{"manifest-broken", "key-before-section"}));
    EXPECT_EQ(LineOf("key-before-section"), 1);
    EXPECT_EQ(IdsOfManifest("; radio\n" + std::string(HEAD)), Found{});
}

TEST_F(LintOfAManifest, WritesGlobalInLowerCase)
{
    EXPECT_EQ(IdsOfManifest("[Global]\nbundle_name = radio\nbundle_load_mode = 0\n"),
              (Found{"manifest-broken", "section-global-case"}));
}

TEST_F(LintOfAManifest, HasNoPointInASectionsName)
{
    EXPECT_EQ(IdsOfManifest(std::string(HEAD) + "[x.y]\nitem_name = tuner.sh\n"),
              (Found{"manifest-broken", "section-point"}));
    EXPECT_EQ(LineOf("section-point"), 4);
}

TEST_F(LintOfAManifest, SpellsGlobal)
{
    const Found ids = IdsOfManifest("[globl]\nbundle_name = radio\nbundle_load_mode = 0\n");
    EXPECT_EQ(std::count(ids.begin(), ids.end(), "section-misspelt"), 1);
    EXPECT_EQ(LineOf("section-misspelt"), 1);
}

TEST_F(LintOfAManifest, RefersToKeysThatThereAre)
{
    EXPECT_EQ(IdsOfManifest("[global]\nbundle_name = ${own.name}\nbundle_load_mode = 0\n"), Found{"reference-unknown"});
    EXPECT_EQ(LineOf("reference-unknown"), 2);
    EXPECT_EQ(IdsOfManifest(std::string(HEAD) + "bundle_dependencies = ${global.bundle_name}2\n"), Found{});
}

TEST_F(LintOfAManifest, RefersToNothingInACircle)
{
    EXPECT_EQ(IdsOfManifest("[global]\nbundle_name = ${global.bundle_name}\nbundle_load_mode = 0\n"),
              Found{"reference-circle"});
    EXPECT_EQ(LineOf("reference-circle"), 2);
}

TEST_F(LintOfAManifest, ExpandsToABoundedLength)
{
    std::string text = HEAD + ("a0 = " + std::string(1000, 'x')) + "\n";
    for (int i = 1; i < 8; ++i) {
        text += "a" + std::to_string(i) + " = ";
        for (int j = 0; j < 8; ++j) {
            text += "${global.a" + std::to_string(i - 1) + "}";
        }
        text += "\n";
    }
    const Found ids = IdsOfManifest(text + "bundle_dependencies = ${global.a7}\n");
    EXPECT_EQ(std::count(ids.begin(), ids.end(), "reference-too-much"), 1);
}

TEST_F(LintOfAManifest, HasAModeThatIsServed)
{
    collection.Bundle("radio").Mode("7").Write();
    EXPECT_EQ(IdsOf("radio"), Found{"mode-refused"});
    EXPECT_EQ(LineOf("mode-refused"), 3);
}

TEST_F(LintOfAManifest, HasANameThatARequestCanCarry)
{
    collection.BundleIn("radio").Name(std::string(127, 'r')).Write();
    EXPECT_EQ(IdsOf("radio"), Found{});
    collection.BundleIn("radio").Name(std::string(128, 'r')).Write();
    EXPECT_EQ(IdsOf("radio"), Found{"name-not-deletable"});
    collection.BundleIn("radio").Name("").Write();
    EXPECT_EQ(IdsOf("radio"), Found{"name-not-deletable"});
}

TEST_F(LintOfAManifest, WritesItemsInTheOrderOfTheirStart)
{
    collection.Bundle("radio").Item("tuner1", SCRIPT).Item("tuner2", SCRIPT).Write();
    const std::string items[] = {"[item2]\nitem_name = tuner1\n", "[item10]\nitem_name = tuner2\n"};
    WriteFile(collection / "radio/BundleManifest.ini", HEAD + items[0] + items[1]);
    EXPECT_EQ(IdsOf("radio"), Found{"item-order"});
    WriteFile(collection / "radio/BundleManifest.ini", HEAD + items[1] + items[0]);
    EXPECT_EQ(IdsOf("radio"), Found{});
}

TEST_F(LintOfAManifest, HasLibrariesOnlyInThreadMode)
{
    collection.Bundle("radio").ThreadMode().Item("tunerd", SCRIPT).Write();
    EXPECT_EQ(IdsOf("radio"), Found{"thread-no-library"});
}

TEST_F(LintOfAManifest, WritesEndingsInLowerCase)
{
    collection.Bundle("radio").Item("tuner.SO", SCRIPT).Write();
    EXPECT_EQ(IdsOf("radio"), Found{"suffix-case"});
    collection.Bundle("radio").Item("tuner.py", SCRIPT).Write();
    EXPECT_EQ(IdsOf("radio"), Found{});
}

TEST_F(LintOfAManifest, NamesItemsWithThreeCharacters)
{
    collection.Bundle("radio").Item("ab").Write();
    EXPECT_EQ(IdsOf("radio"), Found{"item-name-short"});
    collection.Bundle("radio").Item("abc", SCRIPT).Write();
    EXPECT_EQ(IdsOf("radio"), Found{});
}

TEST_F(LintOfACollection, HasANameOnce)
{
    collection.BundleIn("one").Name("radio").Write();
    collection.BundleIn("two").Name("radio").Write();
    EXPECT_EQ(IdsOfAll(), Found{"name-twice"});
    EXPECT_EQ(result.bundles, 2U);
    collection.BundleIn("two").Name("tuner").Write();
    EXPECT_EQ(IdsOfAll(), Found{});
}

TEST_F(LintOfACollection, HasWhatIsRequired)
{
    collection.Bundle("radio").Requires("tuner").Write();
    collection.Bundle("tuners").Write();
    EXPECT_EQ(IdsOfAll(), Found{"requirement-missing"});
    EXPECT_EQ(TextOf("requirement-missing"), "There is no bundle \"tuner\". Did you mean \"tuners\"?");
    EXPECT_EQ(IdsOf("radio"), Found{}) << "what is beside a single bundle is not known";
    options.collection = collection.Path();
    EXPECT_EQ(IdsOf("radio"), Found{"requirement-missing"});
    collection.Bundle("tuner").Write();
    EXPECT_EQ(IdsOf("radio"), Found{});
    EXPECT_EQ(IdsOfAll(), Found{});
}

TEST_F(LintOfACollection, HasNoCircle)
{
    collection.Bundle("a").Requires("b").Write();
    collection.Bundle("b").Requires("c").Write();
    collection.Bundle("c").Requires("b").Write();
    collection.Bundle("self").Requires("self").Write();
    EXPECT_EQ(IdsOfAll(), (Found{"requirement-circle", "requirement-circle"}));
    EXPECT_EQ(TextOf("requirement-circle"), "The circle is b \u2192 c \u2192 b.");
}

TEST_F(LintOfACollection, HasNoChainOfMoreThanTenThousand)
{
    constexpr int longest = 10'000;
    for (int i = 0; i <= longest; ++i) {
        const std::string name = std::to_string(i);
        fs::create_directory(collection / name);
        std::ofstream(collection / (name + "/BundleManifest.ini"))
            << "[global]\nbundle_name=" << i << "\nbundle_load_mode=0\n"
            << (i == longest ? "" : "bundle_dependencies=" + std::to_string(i + 1) + "\n");
    }
    EXPECT_EQ(IdsOfAll(), Found{"requirement-chain"});
    fs::remove_all(collection / "0");
    EXPECT_EQ(IdsOfAll(), Found{});
}

TEST_F(LintOfACollection, TellsThreadsApart)
{
    collection.Bundle("navigation")
        .ThreadMode()
        .Library("route-a.so", LINT_ENTRY, LINT_LIBRARY)
        .Library("route-b.so", LINT_ENTRY, LINT_LIBRARY)
        .Write();
    EXPECT_EQ(IdsOfAll(), Found{"thread-names-same"});
    collection.Bundle("navigation")
        .ThreadMode()
        .Library("a.so", LINT_ENTRY, LINT_LIBRARY)
        .Library("b.so", LINT_ENTRY, LINT_LIBRARY)
        .Write();
    EXPECT_EQ(IdsOfAll(), Found{});
}
