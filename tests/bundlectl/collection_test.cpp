#include "model/collection.h"

#include "support/collection_builder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using Model::Collection;
using Model::DeclaredBundle;
using Model::ReadCollection;
using Model::Verdict;

namespace {

class TheCollection : public ::testing::Test {
public:
    void Read() { found = ReadCollection(collection.Path(), "/"); }

    const DeclaredBundle& At(const std::string& directory)
    {
        const DeclaredBundle* const bundle = found.FindByPath(collection / directory);
        return bundle != nullptr ? *bundle : m_none;
    }

    CollectionBuilder collection;
    Collection found;

private:
    DeclaredBundle m_none;
};

using Names = std::vector<std::string>;

} // namespace

TEST_F(TheCollection, HasWhatTheManifestsSay)
{
    collection.Bundle("base").Item("based", "#!/bin/sh\n").Write();
    collection.Bundle("radio").Requires("base").Library("radio.so", "run").ThreadMode().Write();
    Read();
    EXPECT_EQ(found.trouble, "");
    ASSERT_EQ(found.bundles.size(), 2U);
    const DeclaredBundle& radio = At("radio");
    EXPECT_EQ(radio.verdict, Verdict::STARTS) << radio.reason;
    EXPECT_EQ(radio.name, "radio");
    EXPECT_EQ(radio.mode, 1);
    EXPECT_EQ(radio.required, Names{"base"});
    ASSERT_EQ(radio.items.size(), 1U);
    EXPECT_EQ(radio.items[0].name, "radio.so");
    EXPECT_EQ(radio.items[0].entryFunction, "run");
    EXPECT_EQ(radio.items[0].file, collection / "radio/bin/radio.so");
}

TEST_F(TheCollection, RunsNoScript)
{
    const std::string note = collection / "note";
    const std::string script = "#!/bin/sh\necho ran >> " + note + "\n";
    collection.Bundle("radio").Install(script).Update(script).Uninstall(script).Write();
    collection.Bundle("lonely").Requires("nowhere").Install(script).Uninstall(script).Write();
    Read();
    EXPECT_EQ(At("radio").verdict, Verdict::STARTS);
    EXPECT_EQ(At("lonely").verdict, Verdict::REQUIRED_MISSING);
    EXPECT_FALSE(Exists(note));
}

TEST_F(TheCollection, MayBeUnreadable)
{
    EXPECT_NE(ReadCollection("/nowhere/at/all", "/").trouble, "");
}

TEST_F(TheCollection, NamesTheLineOfAManifestThatIsWrong)
{
    collection.BundleIn("no_name").Manifest("[global]\nbundle_load_mode = 0\n").Write();
    collection.BundleIn("bad_mode").Manifest("\n[global]\nbundle_name = x\nbundle_load_mode = fast\n").Write();
    collection.BundleIn("no_item")
        .Manifest("[global]\nbundle_name=y\nbundle_load_mode=0\n\n[one]\nentry_func=f\n")
        .Write();
    collection.BundleIn("no_entry")
        .Manifest("[global]\nbundle_name=z\nbundle_load_mode=0\n[one]\nitem_name=a.so\n")
        .Write();
    collection.BundleIn("short").Manifest("[global]\nbundle_name=s\nbundle_load_mode=0\n[one]\nitem_name=ab\n").Write();
    Read();
    EXPECT_EQ(At("no_name").verdict, Verdict::MANIFEST_BROKEN);
    EXPECT_EQ(At("no_name").reason, "Not found: global.bundle_name");
    EXPECT_EQ(At("no_name").manifestLine, 1);
    EXPECT_EQ(At("bad_mode").verdict, Verdict::MANIFEST_BROKEN);
    EXPECT_EQ(At("bad_mode").manifestLine, 4) << At("bad_mode").reason;
    EXPECT_EQ(At("no_item").manifestLine, 5) << At("no_item").reason;
    EXPECT_EQ(At("no_entry").manifestLine, 4) << At("no_entry").reason;
    EXPECT_EQ(At("short").verdict, Verdict::ENDS_START_UP);
    EXPECT_EQ(At("short").manifestLine, 5);
}

TEST_F(TheCollection, TellsADirectoryWithoutAManifest)
{
    collection.BundleIn("empty").NoManifest().Write();
    Read();
    EXPECT_EQ(At("empty").verdict, Verdict::NO_MANIFEST);
}

TEST_F(TheCollection, TellsARefusedMode)
{
    collection.Bundle("odd").Mode("7").Write();
    Read();
    EXPECT_EQ(At("odd").verdict, Verdict::MODE_REFUSED);
    EXPECT_EQ(At("odd").mode, 7);
    EXPECT_EQ(At("odd").name, "odd");
    EXPECT_EQ(At("odd").reason, "create bundle activator fail.");
}

TEST_F(TheCollection, NamesBothDirectoriesOfADuplicate)
{
    collection.BundleIn("one").Name("radio").Write();
    collection.BundleIn("two").Name("radio").Write();
    Read();
    const auto same = found.Find("radio");
    ASSERT_EQ(same.size(), 2U);
    EXPECT_EQ(same[0]->verdict, Verdict::STARTS);
    EXPECT_EQ(same[1]->verdict, Verdict::DUPLICATE);
    EXPECT_EQ(same[1]->otherPath, same[0]->path);
    EXPECT_EQ(same[1]->reason, "bundle[radio] already exists.");
}

TEST_F(TheCollection, SpellsOutTheWayToAMissingBundle)
{
    collection.Bundle("a").Requires("b").Write();
    collection.Bundle("b").Requires("c").Write();
    Read();
    EXPECT_EQ(At("a").verdict, Verdict::REQUIRED_MISSING);
    EXPECT_EQ(At("a").reason, "Invalid argument: required bundle :[c] not found.");
    EXPECT_EQ(At("a").chain, (Names{"a", "b", "c"}));
    EXPECT_EQ(At("b").chain, (Names{"b", "c"}));
}

TEST_F(TheCollection, SpellsOutACircle)
{
    collection.Bundle("a").Requires("b").Write();
    collection.Bundle("b").Requires("c").Write();
    collection.Bundle("c").Requires("b").Write();
    collection.Bundle("self").Requires("self").Write();
    Read();
    EXPECT_EQ(At("a").verdict, Verdict::CIRCLE);
    EXPECT_EQ(At("a").chain, (Names{"a", "b", "c", "b"}));
    EXPECT_EQ(At("a").reason, "Invalid argument: bundle circular reference occur : <c,b>.");
    EXPECT_EQ(At("self").chain, (Names{"self", "self"}));
}

TEST_F(TheCollection, TellsABundleOfThreadModeThatHasNoLibrary)
{
    collection.Bundle("tuner").ThreadMode().Item("tunerd").Write();
    collection.Bundle("radio").Requires("tuner").Write();
    collection.Bundle("top").Requires("radio").Write();
    Read();
    EXPECT_EQ(At("tuner").verdict, Verdict::NO_LIBRARY);
    EXPECT_EQ(At("radio").verdict, Verdict::REQUIRED_FAILS);
    EXPECT_EQ(At("radio").chain, (Names{"radio", "tuner"}));
    EXPECT_EQ(At("top").verdict, Verdict::REQUIRED_FAILS);
}

TEST_F(TheCollection, EscapesNames)
{
    collection.BundleIn("x").Manifest("[global]\nbundle_name=a\x1b[31m\nbundle_load_mode=0\n").Write();
    Read();
    EXPECT_EQ(At("x").name, "a\\033[31m");
}
