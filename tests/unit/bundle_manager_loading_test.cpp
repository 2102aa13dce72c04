#include "managed_bundles.h"

#include "support/fault.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

using SystemServer::BundleFailProcessor;
using SystemServer::BundleManager;

namespace {

class LoadingABundle : public ManagedBundles {};
class LoadingAllBundles : public ManagedBundles {};
class UnloadingABundle : public ManagedBundles {};
class UnloadingAllBundles : public ManagedBundles {};
class FindingABundle : public ManagedBundles {};
class TheFailProcessor : public ManagedBundles {};
class TheManager : public ManagedBundles {};

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

TEST_F(LoadingABundle, GoesOnAfterAnInstallScriptThatFails)
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

TEST_F(LoadingABundle, IsRefusedWhenTheFactoryMakesNone)
{
    WriteFile(collection / "file", "");
    EXPECT_FALSE(manager.LoadBundle(collection / "file"));
    EXPECT_TRUE(log.HasError("create bundle fail."));
    EXPECT_FALSE(memoryManager.LoadBundle("nowhere"));
}

TEST_F(LoadingABundle, LetsWhatTheFactoryThrowsPassAndRunsNoScript)
{
    const auto builder = collection.Bundle("media").NoManifest().Install(Noting("install"));
    EXPECT_THROW(Load(builder), Poco::FileNotFoundException);
    EXPECT_THROW(manager.LoadBundle(collection / "nowhere"), Poco::FileNotFoundException);
    EXPECT_EQ(Notes(), "");
    EXPECT_TRUE(manager.LoadedPaths().empty());
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
    EXPECT_EQ(manager.LoadedPaths(), (std::set<std::string>{collection / "a", collection / "b"}));
    for (const std::string& name : {std::string("a"), std::string("b")}) {
        EXPECT_TRUE(log.InOrder({"load bundle from " + (collection / name) + "...",
                                 "load bundle[" + name + "] success.", "load bundle done."}));
    }
    EXPECT_EQ(log.Count("load bundle done."), 2);
    EXPECT_FALSE(log.HasPart("file..."));
}

TEST_F(LoadingAllBundles, SaysNothingOfAnEmptyCollection)
{
    LoadAll();
    EXPECT_TRUE(log.Messages().empty());
    WriteFile(collection / "file", "");
    WriteFile(collection / "BundleManifest.ini", "");
    LoadAll();
    EXPECT_TRUE(log.Messages().empty());
}

TEST_F(LoadingAllBundles, TakesTheCollectionsPathWithASlashBehindItToo)
{
    collection.Bundle("a").Write();
    std::string directory = collection.Path() + "/";
    manager.LoadAllBundles(directory);
    EXPECT_TRUE(manager.FindBundleByPath(collection / "a"));
}

TEST_F(LoadingAllBundles, KeepsTheFirstOfTwoWithOneName)
{
    collection.BundleIn("one").Name("media").Install(Noting("one")).Write();
    collection.BundleIn("two").Name("media").Install(Noting("two")).Write();
    LoadAll();
    EXPECT_EQ(log.Count("load bundle[media] success."), 1);
    EXPECT_EQ(log.Count("bundle[media] already exists."), 1);
    EXPECT_EQ(log.Count("load bundle done."), 2) << "a refusal is no failure here";
    const std::string notes = Notes();
    EXPECT_TRUE(notes == "one\ntwo\n" || notes == "two\none\n") << notes;
    EXPECT_EQ(manager.LoadedPaths(), std::set<std::string>{collection / notes.substr(0, 3)});
}

TEST_F(LoadingAllBundles, GoesOnAfterABundleThatFails)
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
    EXPECT_EQ(manager.LoadedPaths(), std::set<std::string>{collection / "media"});
}

TEST_F(LoadingAllBundles, SkipsEntriesWhoseKindCannotBeTold)
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
    // Each bundle's "install.sh" takes all others away: only the first one that the walk comes to is loaded.
    for (const char* const name : {"a", "b", "c", "d"}) {
        collection.Bundle(name)
            .Install("#!/bin/sh\nfor i in a b c d; do [ $i = " + std::string(name) + " ] || rm -rf " +
                     collection.Path() + "/$i; done\n")
            .Write();
    }
    LoadAll();
    EXPECT_EQ(manager.LoadedPaths().size(), 1U);
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

TEST_F(LoadingAllBundles, ThrowsWhenThereIsNoCollection)
{
    std::string nowhere = collection / "nowhere";
    EXPECT_THROW(manager.LoadAllBundles(nowhere), Poco::Exception);
}

TEST_F(UnloadingABundle, RunsTheUninstallScriptAndForgetsIt)
{
    const auto bundle = Load(collection.Bundle("media").Uninstall(Noting("uninstall")));
    manager.UnloadBundle(bundle);
    EXPECT_EQ(Notes(), "uninstall\n");
    EXPECT_FALSE(manager.FindBundleByName("media"));
    EXPECT_EQ(bundle->GetCurState(), Bundle::BUNDLE_INSTALLED);
    EXPECT_TRUE(Exists(collection / "media")) << "its files are nobody's business here";
}

TEST_F(UnloadingABundle, GoesOnAfterAnUninstallScriptThatFails)
{
    const auto bundle = Load(collection.Bundle("media").Uninstall("#!/bin/sh\nexit 1\n"));
    manager.UnloadBundle(bundle);
    EXPECT_TRUE(manager.LoadedPaths().empty());
}

TEST_F(UnloadingABundle, IsPossibleInTheStatesInWhichItDoesNotRun)
{
    for (const auto state : {Bundle::BUNDLE_INSTALLED, Bundle::BUNDLE_UNINSTALLED, Bundle::BUNDLE_RESOLVED}) {
        const auto bundle = Load(collection.Bundle("media"));
        bundle->SetCurState(state);
        manager.UnloadBundle(bundle);
        EXPECT_EQ(bundle->GetCurState(), state);
        EXPECT_TRUE(manager.LoadedPaths().empty());
    }
}

TEST_F(UnloadingABundle, IsRefusedInTheStatesInWhichItRuns)
{
    const auto bundle = Load(collection.Bundle("media").Uninstall(Noting("uninstall")));
    for (const auto state : {Bundle::BUNDLE_STARTING, Bundle::BUNDLE_STOPPING, Bundle::BUNDLE_ACTIVE}) {
        bundle->SetCurState(state);
        EXPECT_EQ(Refusal([&] { manager.UnloadBundle(bundle); }), "bundle[media] already start can not be unloaded.");
        EXPECT_EQ(bundle->GetCurState(), state);
        EXPECT_EQ(manager.FindBundleByName("media"), bundle);
    }
    EXPECT_EQ(Notes(), "");
}

TEST_F(UnloadingABundle, IsPossibleAfterAnActiveOneIsStopped)
{
    const auto bundle = LoadStarted(collection.Bundle("media"));
    EXPECT_EQ(Refusal([&] { manager.UnloadBundle(bundle); }), "bundle[media] already start can not be unloaded.");
    EXPECT_EQ(bundle->GetCurState(), Bundle::BUNDLE_ACTIVE);
    manager.StopBundle(bundle);
    EXPECT_EQ(bundle->GetCurState(), Bundle::BUNDLE_RESOLVED);
    manager.UnloadBundle(bundle);
    EXPECT_TRUE(manager.LoadedPaths().empty());
}

TEST_F(UnloadingABundle, IsRefusedTheSecondTime)
{
    const auto bundle = Load(collection.Bundle("media").Uninstall(Noting("uninstall")));
    manager.UnloadBundle(bundle);
    EXPECT_EQ(Refusal([&] { manager.UnloadBundle(bundle); }), "bundle[media] not found.");
    EXPECT_EQ(Notes(), "uninstall\n");
}

TEST_F(UnloadingABundle, LeavesItsDependantsAlone)
{
    const auto base = LoadResolved(collection.Bundle("base"));
    const auto media = LoadResolved(collection.Bundle("media").Requires("base"));
    manager.UnloadBundle(base);
    EXPECT_EQ(media->GetCurState(), Bundle::BUNDLE_RESOLVED);
    EXPECT_EQ(manager.FindBundleByName("media"), media);
}

TEST_F(UnloadingABundle, LetsOtherHoldersKeepIt)
{
    const auto bundle = Load(collection.Bundle("media"));
    manager.UnloadBundle(bundle);
    EXPECT_EQ(NameOf(*bundle), "media");
    EXPECT_EQ(bundle->GetStorage()->GetRootPath(), collection / "media");
}

TEST_F(UnloadingAllBundles, StopsWhatIsActiveAndUnloadsInTheOrderOfTheNames)
{
    LoadStarted(collection.Bundle("a").Uninstall(Noting("a")));
    LoadResolved(collection.Bundle("c").Uninstall(Noting("c")));
    Load(collection.Bundle("b").Uninstall(Noting("b")));
    log.Restart();
    manager.UnloadAllBundles();
    EXPECT_EQ(Notes(), "a\nb\nc\n");
    EXPECT_TRUE(manager.LoadedPaths().empty());
    EXPECT_TRUE(log.InOrder({"stop bundle[a] activator Done.", "bundle[a] state changing[Stopping] -> [Resolved]",
                             "run script[" + (collection / "a") + "/./script/uninstall.sh]..."}));
    EXPECT_FALSE(log.HasPart("stop bundle[b]"));
}

TEST_F(UnloadingAllBundles, DoesNothingWithoutBundles)
{
    manager.UnloadAllBundles();
    EXPECT_TRUE(log.Messages().empty());
}

TEST_F(UnloadingAllBundles, EndsAtTheFirstRefusal)
{
    Load(collection.Bundle("a"));
    const auto stuck = Load(collection.Bundle("b"));
    Load(collection.Bundle("c"));
    stuck->SetCurState(Bundle::BUNDLE_STARTING);
    EXPECT_EQ(Refusal([&] { manager.UnloadAllBundles(); }), "bundle[b] already start can not be unloaded.");
    EXPECT_EQ(manager.LoadedPaths(), (std::set<std::string>{collection / "b", collection / "c"}));
}

TEST_F(FindingABundle, ByNameFailsWithARecord)
{
    EXPECT_FALSE(manager.FindBundleByName("media"));
    EXPECT_TRUE(log.HasError("bundle [media] not found."));
}

TEST_F(FindingABundle, ByPathTakesThePathExactly)
{
    const auto bundle = Load(collection.Bundle("media"));
    const std::string path = collection / "media";
    EXPECT_EQ(manager.FindBundleByPath(path), bundle);
    log.Restart();
    for (const std::string& other : {path + "/", collection.Path() + "//media", collection.Path() + "/./media",
                                     collection / "MEDIA", collection / "medi", std::string()}) {
        EXPECT_FALSE(manager.FindBundleByPath(other)) << other;
        EXPECT_TRUE(log.HasError("bundle with storage path[" + other + "] not found."));
    }
}

TEST_F(FindingABundle, ByPathGivesTheFirstInTheOrderOfTheNames)
{
    memory->PutBundle("path", "", "");
    memory->Put("path", "[global]\nbundle_name = b\nbundle_load_mode = 0\n");
    memoryManager.LoadBundle("path");
    memory->Put("path", "[global]\nbundle_name = a\nbundle_load_mode = 0\n");
    const auto first = memoryManager.LoadBundle("path");
    EXPECT_EQ(memoryManager.FindBundleByPath("path"), first);
}

TEST_F(TheFailProcessor, UnloadsInTheOrderOfTheFailures)
{
    {
        BundleFailProcessor processor(&manager);
        processor.m_failedBundles.push_back(Load(collection.Bundle("b").Uninstall(Noting("b"))));
        processor.m_failedBundles.push_back(Load(collection.Bundle("a").Uninstall(Noting("a"))));
        EXPECT_EQ(Notes(), "");
    }
    EXPECT_EQ(Notes(), "b\na\n");
    EXPECT_TRUE(manager.LoadedPaths().empty());
}

TEST_F(TheFailProcessor, LeavesABundleThatCannotBeUnloadedAsItIs)
{
    const auto running = LoadStarted(collection.Bundle("running"));
    const auto gone = Load(collection.Bundle("gone"));
    manager.UnloadBundle(gone);
    const auto failed = Load(collection.Bundle("failed"));
    {
        BundleFailProcessor processor(&manager);
        processor.m_failedBundles = {running, gone, failed};
    }
    EXPECT_EQ(running->GetCurState(), Bundle::BUNDLE_ACTIVE);
    EXPECT_EQ(manager.LoadedPaths(), std::set<std::string>{collection / "running"});
    EXPECT_TRUE(log.HasError("failed bundle[running] is not unloaded :Invalid argument: bundle[running] already start "
                             "can not be unloaded."));
    EXPECT_TRUE(log.HasError("failed bundle[gone] is not unloaded :Invalid argument: bundle[gone] not found."));
}

TEST_F(TheFailProcessor, OutlivesAnUnloadingThatThrowsWhatIsNoExceptionOfTheFramework)
{
    const auto failed = Load(collection.Bundle("failed").Uninstall("#!/bin/sh\n"));
    const BeforeEach launch(Call::LAUNCH, [](int) { throw std::runtime_error("unheard of"); });
    {
        BundleFailProcessor processor(&manager);
        processor.m_failedBundles = {failed};
    }
    EXPECT_TRUE(log.HasError("failed bundle[failed] is not unloaded :unheard of"));
}

TEST_F(TheManager, DoesNothingToItsBundlesWhenItEnds)
{
    std::weak_ptr<Bundle> watched;
    {
        BundleManager brief(std::make_shared<SystemServer::BundleStorageDirFactory>());
        const auto bundle = brief.LoadBundle(collection.Bundle("media").Uninstall(Noting("uninstall")).Write());
        brief.ResolveBundle(bundle);
        brief.StartBundle(bundle);
        watched = bundle;
        log.Restart();
    }
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(Notes(), "");
    EXPECT_TRUE(log.Messages().empty());
}

TEST_F(TheManager, ThrowsWhenItsLockIsNotToBeHad)
{
    const auto bundle = Load(collection.Bundle("media"));
    const auto withoutLock = [](const auto& operation) {
        const Fault fault(Call::LOCK_MUTEX, EAGAIN, 1);
        operation();
    };
    EXPECT_THROW(withoutLock([&] { manager.LoadBundle(collection / "media"); }), std::system_error);
    EXPECT_THROW(withoutLock([&] { manager.UnloadBundle(bundle); }), std::system_error);
    EXPECT_THROW(withoutLock([&] { manager.ResolveBundle(bundle); }), std::system_error);
    EXPECT_THROW(withoutLock([&] { manager.StartBundle(bundle); }), std::system_error);
    EXPECT_THROW(withoutLock([&] { manager.StopBundle(bundle); }), std::system_error);
    EXPECT_THROW(withoutLock([&] { manager.FindBundleByName("media"); }), std::system_error);
    EXPECT_THROW(withoutLock([&] { manager.FindBundleByPath("media"); }), std::system_error);
    EXPECT_EQ(manager.FindBundleByName("media"), bundle);
}

TEST_F(TheManager, WalksOverItsBundlesWhileTheyComeAndGo)
{
    for (const char* const name : {"a", "m", "z"}) {
        memory->PutBundle(name);
    }
    memory->PutBundle("k", "missing"); // fails in each walk that finds it
    for (const char* const name : {"a", "m", "z"}) {
        memoryManager.LoadBundle(name);
    }
    std::atomic<bool> done{false};
    std::thread other([&] {
        for (int i = 0; i < 300; ++i) {
            const std::string name = std::string(1, static_cast<char>('b' + i % 24)) + "x";
            memory->PutBundle(name, i % 3 == 0 ? "a" : "");
            try {
                const auto bundle = memoryManager.LoadBundle(name);
                memoryManager.LoadBundle("k");
                if (bundle) {
                    memoryManager.UnloadBundle(bundle);
                }
            } catch (const Poco::InvalidArgumentException&) {
                // a walk has started it meanwhile
            }
        }
        done = true;
    });
    while (!done) {
        memoryManager.ResolveAllBundles();
        memoryManager.StartAllBundles();
        memoryManager.StopAllBundles();
        memoryManager.LoadedPaths();
    }
    other.join();
    EXPECT_TRUE(memoryManager.FindBundleByName("a"));
    EXPECT_TRUE(memoryManager.FindBundleByName("m"));
    EXPECT_TRUE(memoryManager.FindBundleByName("z"));
}
