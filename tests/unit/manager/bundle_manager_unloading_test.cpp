#include "unit/manager/managed_bundles.h"

#include "support/fault.h"

#include <set>
#include <stdexcept>

using SystemServer::BundleFailProcessor;

namespace {

class UnloadingABundle : public ManagedBundles {};
class UnloadingAllBundles : public ManagedBundles {};
class TheFailProcessor : public ManagedBundles {};

} // namespace

TEST_F(UnloadingABundle, RunsTheUninstallScriptAndForgetsIt)
{
    const auto bundle = Load(collection.Bundle("media").Uninstall(Noting("uninstall")));
    manager.UnloadBundle(bundle);
    EXPECT_EQ(Notes(), "uninstall\n");
    EXPECT_FALSE(manager.FindBundleByName("media"));
    EXPECT_EQ(bundle->GetCurState(), Bundle::BUNDLE_INSTALLED);
    EXPECT_TRUE(Exists(collection / "media")) << "unloading does not touch its files";
}

TEST_F(UnloadingABundle, ContinuesAfterAnUninstallScriptThatFails)
{
    const auto bundle = Load(collection.Bundle("media").Uninstall("#!/bin/sh\nexit 1\n"));
    manager.UnloadBundle(bundle);
    EXPECT_TRUE(LoadedIn(manager, collection.Path()).empty());
}

TEST_F(UnloadingABundle, IsPossibleInTheStatesInWhichItDoesNotRun)
{
    for (const auto state : {Bundle::BUNDLE_INSTALLED, Bundle::BUNDLE_UNINSTALLED, Bundle::BUNDLE_RESOLVED}) {
        const auto bundle = Load(collection.Bundle("media"));
        bundle->SetCurState(state);
        manager.UnloadBundle(bundle);
        EXPECT_EQ(bundle->GetCurState(), state);
        EXPECT_TRUE(LoadedIn(manager, collection.Path()).empty());
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
    EXPECT_TRUE(LoadedIn(manager, collection.Path()).empty());
}

TEST_F(UnloadingABundle, IsRefusedTheSecondTime)
{
    const auto bundle = Load(collection.Bundle("media").Uninstall(Noting("uninstall")));
    manager.UnloadBundle(bundle);
    EXPECT_EQ(Refusal([&] { manager.UnloadBundle(bundle); }), "bundle[media] not found.");
    EXPECT_EQ(Notes(), "uninstall\n");
}

TEST_F(UnloadingABundle, DoesNotTouchItsDependants)
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

TEST_F(UnloadingAllBundles, StopsActiveBundlesAndUnloadsInTheOrderOfTheNames)
{
    LoadStarted(collection.Bundle("a").Uninstall(Noting("a")));
    LoadResolved(collection.Bundle("c").Uninstall(Noting("c")));
    Load(collection.Bundle("b").Uninstall(Noting("b")));
    log.Restart();
    manager.UnloadAllBundles();
    EXPECT_EQ(Notes(), "a\nb\nc\n");
    EXPECT_TRUE(LoadedIn(manager, collection.Path()).empty());
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
    EXPECT_EQ(LoadedIn(manager, collection.Path()), (std::set<std::string>{collection / "b", collection / "c"}));
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
    EXPECT_TRUE(LoadedIn(manager, collection.Path()).empty());
}

TEST_F(TheFailProcessor, DoesNotTouchABundleThatCannotBeUnloaded)
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
    EXPECT_EQ(LoadedIn(manager, collection.Path()), std::set<std::string>{collection / "running"});
    EXPECT_TRUE(log.HasError("failed bundle[running] is not unloaded :Invalid argument: bundle[running] already start "
                             "can not be unloaded."));
    EXPECT_TRUE(log.HasError("failed bundle[gone] is not unloaded :Invalid argument: bundle[gone] not found."));
}

TEST_F(TheFailProcessor, SurvivesAnUnloadingThatThrowsAStandardException)
{
    const auto failed = Load(collection.Bundle("failed").Uninstall("#!/bin/sh\n"));
    const BeforeEach launch(Call::LAUNCH, [](int) { throw std::runtime_error("unheard of"); });
    {
        BundleFailProcessor processor(&manager);
        processor.m_failedBundles = {failed};
    }
    EXPECT_TRUE(log.HasError("failed bundle[failed] is not unloaded :unheard of"));
}
