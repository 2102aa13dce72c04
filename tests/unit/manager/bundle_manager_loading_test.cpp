#include "unit/manager/managed_bundles.h"

#include "support/fault.h"

#include <filesystem>
#include <memory>
#include <set>
#include <stdexcept>

namespace {

class LoadingABundle : public ManagedBundles {};
class LoadingAllBundles : public ManagedBundles {};

} // namespace

TEST_F(LoadingABundle, RegistersItUnderItsName)
{
    const std::string path = collection.BundleIn("directory").Name("media").Write();
    const auto bundle = manager.LoadBundle(path);
    ASSERT_TRUE(bundle);
    EXPECT_EQ(manager.FindBundleByName("media"), bundle);
    EXPECT_EQ(manager.FindBundleByPath(path), bundle);
    EXPECT_EQ(bundle->GetCurState(), Bundle::BUNDLE_INSTALLED);
    EXPECT_TRUE(log.HasInfo("load bundle[media] success."));
    EXPECT_EQ(log.Messages().back(), "load bundle[media] success.");
}

TEST_F(LoadingABundle, RunsTheInstallScriptOnceAndFirst)
{
    Load(collection.Bundle("media").Install(Noting("install")).Uninstall(Noting("uninstall")).Update(Noting("update")));
    EXPECT_EQ(Notes(), "install\n");
    EXPECT_TRUE(log.InOrder(
        {"run script[" + (collection / "media") + "/./script/install.sh] done.", "load bundle[media] success."}));
}

TEST_F(LoadingABundle, ContinuesAfterAnInstallScriptThatFails)
{
    EXPECT_TRUE(Load(collection.Bundle("media").Install("#!/bin/sh\nexit 1\n")));
}

TEST_F(LoadingABundle, StartsAndResolvesNothing)
{
    const CallCounter forks(Call::FORK);
    const auto bundle = Load(collection.Bundle("media").Item("mediad", "#!/bin/sh\n"));
    EXPECT_EQ(bundle->GetCurState(), Bundle::BUNDLE_INSTALLED);
    EXPECT_EQ(forks.Count(), 0);
}

TEST_F(LoadingABundle, IsRefusedWhenTheFactoryMakesNoBundle)
{
    WriteFile(collection / "file", "");
    EXPECT_FALSE(manager.LoadBundle(collection / "file"));
    EXPECT_TRUE(log.HasError("create bundle fail."));
    EXPECT_FALSE(memoryManager.LoadBundle("nowhere"));
}

TEST_F(LoadingABundle, PassesOnExceptionsOfTheFactoryAndRunsNoScript)
{
    const auto builder = collection.Bundle("media").NoManifest().Install(Noting("install"));
    EXPECT_THROW(Load(builder), Poco::FileNotFoundException);
    EXPECT_THROW(manager.LoadBundle(collection / "nowhere"), Poco::FileNotFoundException);
    EXPECT_EQ(Notes(), "");
    EXPECT_TRUE(LoadedIn(manager, collection.Path()).empty());
    EXPECT_TRUE(Load(collection.Bundle("other"))) << "the lock is free";
}

TEST_F(LoadingABundle, IsRefusedForAnUnknownModeAfterItsInstallScriptHasRun)
{
    const auto bundle =
        Load(collection.Bundle("media").Mode("7").Install(Noting("install")).Uninstall(Noting("uninstall")));
    EXPECT_FALSE(bundle);
    EXPECT_EQ(Notes(), "install\n");
    EXPECT_TRUE(log.InOrder({"bundle load mode ------> [7]",
                             "run script[" + (collection / "media") + "/./script/install.sh] done.",
                             "create bundle activator fail."}));
    EXPECT_TRUE(log.HasError("create bundle activator fail."));
    EXPECT_FALSE(manager.FindBundleByName("media"));
}

TEST_F(LoadingABundle, IsRefusedForANameThatIsTakenAfterItsInstallScriptHasRun)
{
    const auto first = Load(collection.BundleIn("one").Name("media"));
    log.Restart();
    const auto second =
        Load(collection.BundleIn("two").Name("media").Install(Noting("install")).Uninstall(Noting("uninstall")));
    EXPECT_FALSE(second);
    EXPECT_EQ(Notes(), "install\n");
    EXPECT_TRUE(log.HasError("bundle[media] already exists."));
    EXPECT_TRUE(log.InOrder(
        {"run script[" + (collection / "two") + "/./script/install.sh] done.", "bundle[media] already exists."}));
    EXPECT_EQ(manager.FindBundleByName("media"), first);
    EXPECT_FALSE(manager.FindBundleByPath(collection / "two"));
}

TEST_F(LoadingABundle, ComparesNamesByteByByte)
{
    EXPECT_TRUE(Load(collection.BundleIn("one").Name("media")));
    EXPECT_TRUE(Load(collection.BundleIn("two").Name("Media")));
    EXPECT_TRUE(manager.FindBundleByName("media"));
    EXPECT_FALSE(manager.FindBundleByName("MEDIA"));
}

TEST_F(LoadingABundle, HoldsOneReferenceToTheBundle)
{
    const std::weak_ptr<Bundle> bundle = Load(collection.Bundle("media"));
    EXPECT_FALSE(bundle.expired());
    manager.UnloadBundle(bundle.lock());
    EXPECT_TRUE(bundle.expired());
}

TEST_F(LoadingAllBundles, LoadsEveryDirectoryAndSkipsFiles)
{
    collection.Bundle("a").Write();
    collection.Bundle("b").Write();
    WriteFile(collection / "file", "");
    LoadAll();
    EXPECT_EQ(LoadedIn(manager, collection.Path()), (std::set<std::string>{collection / "a", collection / "b"}));
    for (const std::string& name : {std::string("a"), std::string("b")}) {
        EXPECT_TRUE(log.InOrder({"load bundle from " + (collection / name) + "...",
                                 "load bundle[" + name + "] success.", "load bundle done."}));
    }
    EXPECT_EQ(log.Count("load bundle done."), 2);
    EXPECT_FALSE(log.HasPart("file..."));
}

TEST_F(LoadingAllBundles, WritesNothingForAnEmptyCollection)
{
    LoadAll();
    EXPECT_TRUE(log.Messages().empty());
    WriteFile(collection / "file", "");
    WriteFile(collection / "BundleManifest.ini", "");
    LoadAll();
    EXPECT_TRUE(log.Messages().empty());
}

TEST_F(LoadingAllBundles, AcceptsTheCollectionsPathWithATrailingSlash)
{
    collection.Bundle("a").Write();
    std::string directory = collection.Path() + "/";
    manager.LoadAllBundles(directory);
    EXPECT_TRUE(manager.FindBundleByPath(collection / "a"));
}

TEST_F(LoadingAllBundles, KeepsTheFirstOfTwoWithTheSameName)
{
    collection.BundleIn("one").Name("media").Install(Noting("one")).Write();
    collection.BundleIn("two").Name("media").Install(Noting("two")).Write();
    LoadAll();
    EXPECT_EQ(log.Count("load bundle[media] success."), 1);
    EXPECT_EQ(log.Count("bundle[media] already exists."), 1);
    EXPECT_EQ(log.Count("load bundle done."), 2) << "a refused bundle does not count as a failure here";
    const std::string notes = Notes();
    EXPECT_TRUE(notes == "one\ntwo\n" || notes == "two\none\n") << notes;
    EXPECT_EQ(LoadedIn(manager, collection.Path()), std::set<std::string>{collection / notes.substr(0, 3)});
}

TEST_F(LoadingAllBundles, ContinuesAfterABundleThatFails)
{
    collection.Bundle("broken").Manifest("[global]\nbundle_name = broken\n").Write();
    collection.Bundle("empty").NoManifest().Write();
    collection.Bundle("media").Write();
    LoadAll();
    EXPECT_TRUE(
        log.HasError("failed to load bundles from " + (collection / "broken") + ":Not found: global.bundle_load_mode"));
    EXPECT_TRUE(log.HasError("failed to load bundles from " + (collection / "empty") +
                             ":File not found: [./BundleManifest.ini] not found."));
    EXPECT_EQ(log.Count("load bundle done."), 1);
    EXPECT_EQ(LoadedIn(manager, collection.Path()), std::set<std::string>{collection / "media"});
}

TEST_F(LoadingAllBundles, SkipsEntriesOfUnknownKind)
{
    std::filesystem::create_symlink(collection / "nowhere", collection / "dangling");
    std::filesystem::create_symlink(collection / "circle", collection / "circle");
    collection.Bundle("media").Write();
    LoadAll();
    EXPECT_EQ(log.CountPart("load bundle from "), 1);
    EXPECT_FALSE(log.HasPart("failed to load"));
    EXPECT_TRUE(manager.FindBundleByName("media"));
}

TEST_F(LoadingAllBundles, FollowsALinkToADirectory)
{
    CollectionBuilder elsewhere;
    std::filesystem::create_symlink(elsewhere.Bundle("media").Write(), collection / "link");
    LoadAll();
    EXPECT_TRUE(manager.FindBundleByPath(collection / "link"));
}

TEST_F(LoadingAllBundles, ToleratesEntriesThatVanishMeanwhile)
{
    // Each bundle's "install.sh" removes all others, so only the first bundle of the walk is loaded.
    for (const char* const name : {"a", "b", "c", "d"}) {
        collection.Bundle(name)
            .Install("#!/bin/sh\nfor i in a b c d; do [ $i = " + std::string(name) + " ] || rm -rf " +
                     collection.Path() + "/$i; done\n")
            .Write();
    }
    LoadAll();
    EXPECT_EQ(LoadedIn(manager, collection.Path()).size(), 1U);
    EXPECT_EQ(log.CountPart("load bundle["), 1);
}

TEST_F(LoadingAllBundles, IsEndedByAnItemNameOfFewerThanThreeCharacters)
{
    collection.Bundle("media").Item("ab").Write();
    std::string directory = collection.Path();
    EXPECT_THROW(manager.LoadAllBundles(directory), std::out_of_range);
    EXPECT_FALSE(log.HasPart("failed to load"));
    EXPECT_FALSE(log.Has("load bundle done."));
}

TEST_F(LoadingAllBundles, ThrowsWithoutACollection)
{
    std::string nowhere = collection / "nowhere";
    EXPECT_THROW(manager.LoadAllBundles(nowhere), Poco::Exception);
}
