#include "unit/manager/managed_bundles.h"

#include "bundle_process_activator.h"
#include "support/eventually.h"
#include "support/fault.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <optional>
#include <system_error>
#include <vector>

using namespace std::chrono_literals;
using SystemServer::BundleProcessActivator;

namespace {

class StartingABundle : public ManagedBundles {
public:
    /// A bundle whose activator throws when it starts: in thread mode an item must be a library.
    BundleBuilder Unstartable(const std::string& name) const
    {
        return collection.Bundle(name).ThreadMode().Item("noLibrary");
    }

    const std::string refusedItem = "item[%s] can not be loaded in thread mode.";
};

class StartingAllBundles : public StartingABundle {};

class StoppingABundle : public StartingABundle {
public:
    ~StoppingABundle() override { Table::Forget(CHILD); }

    /// Makes the stop of the activator throw. The bundle has a child that cannot be killed while the Fault lives.
    static void GiveAChild(const std::string& name) { Table::Record(CHILD, name); }

private:
    static constexpr int CHILD = 1'000'000'000; // above all pids

    class Table : public BundleProcessActivator {
    public:
        static void Record(int pid, const std::string& bundleName)
        {
            const std::lock_guard<std::mutex> lock(m_pidMapMutex);
            m_pidMap[pid] = {bundleName, bundleName + ".item", "", "item", ""};
        }
        static void Forget(int pid)
        {
            const std::lock_guard<std::mutex> lock(m_pidMapMutex);
            m_pidMap.erase(pid);
        }
    };
};

using Messages = std::vector<std::string>;

} // namespace

TEST_F(StartingABundle, MovesItToActive)
{
    const auto bundle = LoadResolved(collection.Bundle("a"));
    log.Restart();
    manager.StartBundle(bundle);
    EXPECT_EQ(bundle->GetCurState(), Bundle::BUNDLE_ACTIVE);
    EXPECT_EQ(log.Messages(),
              (Messages{"bundle[a] state changing[Resolved] -> [Starting]", "start bundle[a] dependencies...",
                        "start bundle dependencies done.", "start bundle[a] activator...",
                        "start bundle[a] activator done.", "bundle[a] state changing[Starting] -> [Active]"}));
    for (const LogRecord& record : log.Records()) {
        EXPECT_EQ(record.level, "INFO");
    }
}

TEST_F(StartingABundle, StartsItsRequirementsFirst)
{
    const auto b = LoadResolved(collection.Bundle("b"));
    const auto a = LoadResolved(collection.Bundle("a").Requires("b"));
    log.Restart();
    manager.StartBundle(a);
    EXPECT_EQ(b->GetCurState(), Bundle::BUNDLE_ACTIVE);
    EXPECT_EQ(
        log.Messages(),
        (Messages{"bundle[a] state changing[Resolved] -> [Starting]", "start bundle[a] dependencies...",
                  "start bundle[b]...", "bundle[b] state changing[Resolved] -> [Starting]",
                  "start bundle[b] dependencies...", "start bundle dependencies done.", "start bundle[b] activator...",
                  "start bundle[b] activator done.", "bundle[b] state changing[Starting] -> [Active]",
                  "start bundle done.", "start bundle dependencies done.", "start bundle[a] activator...",
                  "start bundle[a] activator done.", "bundle[a] state changing[Starting] -> [Active]"}));
}

TEST_F(StartingABundle, SkipsRequiredBundlesThatAreActive)
{
    LoadStarted(collection.Bundle("b"));
    const auto a = LoadResolved(collection.Bundle("a").Requires("b").Requires("b"));
    log.Restart();
    manager.StartBundle(a);
    EXPECT_FALSE(log.HasPart("start bundle[b]"));
}

TEST_F(StartingABundle, IsRefusedUnlessItIsResolved)
{
    const auto bundle = Load(collection.Bundle("a"));
    for (const auto state : {Bundle::BUNDLE_INSTALLED, Bundle::BUNDLE_UNINSTALLED, Bundle::BUNDLE_STARTING,
                             Bundle::BUNDLE_STOPPING, Bundle::BUNDLE_ACTIVE}) {
        bundle->SetCurState(state);
        log.Restart();
        EXPECT_EQ(Refusal([&] { manager.StartBundle(bundle); }),
                  "bundle[a] not in resolved state can not be starting.");
        EXPECT_EQ(bundle->GetCurState(), state);
        EXPECT_TRUE(log.Messages().empty());
    }
}

TEST_F(StartingABundle, IsRefusedWhenItIsNotRegistered)
{
    const auto bundle = LoadResolved(collection.Bundle("a"));
    manager.UnloadBundle(bundle);
    log.Restart();
    EXPECT_EQ(Refusal([&] { manager.StartBundle(bundle); }), "bundle [a] not found.");
    EXPECT_EQ(bundle->GetCurState(), Bundle::BUNDLE_RESOLVED);
    EXPECT_EQ(log.Messages(),
              (Messages{"bundle[a] state changing[Resolved] -> [Starting]", "start bundle[a] dependencies...",
                        "start bundle dependencies done.", "bundle[a] state changing[Starting] -> [Resolved]"}));
}

TEST_F(StartingABundle, IsRefusedWhenARequiredBundleIsNotRegistered)
{
    const auto b = LoadResolved(collection.Bundle("b"));
    const auto a = LoadResolved(collection.Bundle("a").Requires("b"));
    manager.UnloadBundle(b);
    EXPECT_EQ(Refusal([&] { manager.StartBundle(a); }), "required bundle :[b] not found.");
    EXPECT_EQ(a->GetCurState(), Bundle::BUNDLE_RESOLVED);
}

TEST_F(StartingABundle, IsRefusedWhenARequiredBundleIsNotResolved)
{
    const auto b = LoadResolved(collection.Bundle("b"));
    const auto a = LoadResolved(collection.Bundle("a").Requires("b"));
    for (const auto state : {Bundle::BUNDLE_INSTALLED, Bundle::BUNDLE_STARTING, Bundle::BUNDLE_STOPPING}) {
        b->SetCurState(state);
        EXPECT_EQ(Refusal([&] { manager.StartBundle(a); }), "bundle[b] not in resolved state can not be starting.");
        EXPECT_EQ(a->GetCurState(), Bundle::BUNDLE_RESOLVED);
        EXPECT_EQ(b->GetCurState(), state);
    }
}

TEST_F(StartingABundle, LeavesItResolvedWhenAnItemOfThreadModeIsNoLibrary)
{
    const auto bundle = LoadResolved(Unstartable("tuner"));
    log.Restart();
    EXPECT_EQ(Refusal([&] { manager.StartBundle(bundle); }), refusedItem);
    EXPECT_EQ(bundle->GetCurState(), Bundle::BUNDLE_RESOLVED);
    EXPECT_EQ(log.Messages(),
              (Messages{"bundle[tuner] state changing[Resolved] -> [Starting]", "start bundle[tuner] dependencies...",
                        "start bundle dependencies done.", "start bundle[tuner] activator...",
                        "bundle[tuner] state changing[Starting] -> [Resolved]"}));
}

TEST_F(StartingABundle, LeavesTheBundlesStartedBeforeItsFailureActive)
{
    const auto base = LoadResolved(collection.Bundle("base"));
    const auto bundle = LoadResolved(Unstartable("tuner").Requires("base"));
    EXPECT_EQ(Refusal([&] { manager.StartBundle(bundle); }), refusedItem);
    EXPECT_EQ(base->GetCurState(), Bundle::BUNDLE_ACTIVE);
}

TEST_F(StartingABundle, LeavesItResolvedWhenItsChildCannotBeForked)
{
    const auto bundle = LoadResolved(collection.Bundle("media").Item("mediad", "#!/bin/sh\n"));
    {
        const Fault fault(Call::FORK, EAGAIN);
        EXPECT_EQ(Refusal([&] { manager.StartBundle(bundle); }), "process[media.mediad] fork fail.");
    }
    EXPECT_EQ(bundle->GetCurState(), Bundle::BUNDLE_RESOLVED);
    EXPECT_TRUE(manager.FindBundleByName("media"));
}

TEST_F(StartingAllBundles, StartsTheResolvedOnesInTheOrderOfTheNames)
{
    LoadResolved(collection.Bundle("c"));
    Load(collection.Bundle("b"));
    LoadResolved(collection.Bundle("a"));
    log.Restart();
    manager.StartAllBundles();
    EXPECT_TRUE(
        log.InOrder({"start bundle[a]...", "bundle[a] state changing[Resolved] -> [Starting]",
                     "bundle[a] state changing[Starting] -> [Active]", "start bundle done.", "start bundle[c]...",
                     "bundle[c] state changing[Starting] -> [Active]", "start bundle done."}));
    EXPECT_FALSE(log.HasPart("bundle[b]"));
}

TEST_F(StartingAllBundles, StartsARequiredBundleWithinItsDependantAndNotAgain)
{
    const auto b = LoadResolved(collection.Bundle("b"));
    LoadResolved(collection.Bundle("a").Requires("b"));
    log.Restart();
    manager.StartAllBundles();
    EXPECT_EQ(b->GetCurState(), Bundle::BUNDLE_ACTIVE);
    EXPECT_TRUE(log.InOrder({"start bundle[a]...", "bundle[a] state changing[Resolved] -> [Starting]",
                             "start bundle[a] dependencies...", "start bundle[b]..."}));
    EXPECT_EQ(log.Count("start bundle[b]..."), 1);
    EXPECT_EQ(log.Count("start bundle done."), 2);
}

TEST_F(StartingAllBundles, UnloadsFailedBundlesAfterTheWalk)
{
    const auto b = LoadResolved(Unstartable("b").Uninstall(Noting("b")));
    const auto a = LoadResolved(collection.Bundle("a").Requires("b").Uninstall(Noting("a")));
    const auto c = LoadResolved(collection.Bundle("c"));
    log.Restart();
    manager.StartAllBundles();
    const std::string failure = " :Invalid argument: " + refusedItem;
    EXPECT_TRUE(log.InOrder({"start bundle[a]...", "bundle[b] state changing[Starting] -> [Resolved]",
                             "bundle[a] state changing[Starting] -> [Resolved]", "failed to start bundle[a]" + failure,
                             "start bundle[b]...", "failed to start bundle[b]" + failure, "start bundle[c]...",
                             "start bundle done.", "run script[" + (collection / "a") + "/./script/uninstall.sh]...",
                             "run script[" + (collection / "b") + "/./script/uninstall.sh]..."}));
    EXPECT_TRUE(log.HasError("failed to start bundle[a]" + failure));
    EXPECT_EQ(log.Count("start bundle done."), 1);
    EXPECT_EQ(Notes(), "a\nb\n");
    EXPECT_EQ(LoadedIn(manager, collection.Path()), std::set<std::string>{collection / "c"});
    EXPECT_EQ(c->GetCurState(), Bundle::BUNDLE_ACTIVE);
    EXPECT_EQ(a->GetCurState(), Bundle::BUNDLE_RESOLVED);
    EXPECT_EQ(b->GetCurState(), Bundle::BUNDLE_RESOLVED);
}

TEST_F(StartingAllBundles, KeepsAFailedBundleThatALaterDependantHasStarted)
{
    // The first attempt fails. The dependant causes a second one, which succeeds, so the running bundle is not
    // unloaded.
    const auto a = LoadResolved(collection.Bundle("a").Item("app", "#!/bin/sh\nexec sleep 60\n"));
    const auto b = LoadResolved(collection.Bundle("b").Requires("a"));
    {
        const Fault fault(Call::FORK, EAGAIN, 1);
        manager.StartAllBundles();
    }
    EXPECT_TRUE(log.HasError("failed to start bundle[a] :Invalid argument: process[a.app] fork fail."));
    EXPECT_EQ(a->GetCurState(), Bundle::BUNDLE_ACTIVE);
    EXPECT_EQ(b->GetCurState(), Bundle::BUNDLE_ACTIVE);
    EXPECT_EQ(manager.FindBundleByName("a"), a);
    manager.StopAllBundles();
    EXPECT_TRUE(Eventually(20s, [&] { return log.Count("all child process exit, stop monitor thread.") == 1; }));
}

TEST_F(StartingAllBundles, IsEndedByAStandardExceptionAndUnloadsTheFailedBundles)
{
    LoadResolved(Unstartable("a").Uninstall(Noting("a")));
    const auto b = LoadResolved(collection.Bundle("b").Item("app", "#!/bin/sh\n"));
    const auto c = LoadResolved(collection.Bundle("c"));
    std::optional<Fault> noLock;
    {
        const BeforeEach launch(Call::PIPE2, [&](int) {
            if (!noLock) { // when the item is launched, not the script that follows
                noLock.emplace(Call::LOCK_MUTEX, EAGAIN, 1);
            }
        });
        EXPECT_THROW(manager.StartAllBundles(), std::system_error);
    }
    EXPECT_EQ(Notes(), "a\n");
    EXPECT_EQ(b->GetCurState(), Bundle::BUNDLE_RESOLVED);
    EXPECT_EQ(c->GetCurState(), Bundle::BUNDLE_RESOLVED);
    EXPECT_EQ(LoadedIn(manager, collection.Path()), (std::set<std::string>{collection / "b", collection / "c"}));
}

TEST_F(StoppingABundle, MovesItToResolved)
{
    const auto bundle = LoadStarted(collection.Bundle("a"));
    log.Restart();
    manager.StopBundle(bundle);
    EXPECT_EQ(bundle->GetCurState(), Bundle::BUNDLE_RESOLVED);
    EXPECT_EQ(log.Messages(), (Messages{"bundle[a] state changing[Active] -> [Stopping]", "stop bundle[a] activator...",
                                        "bundle process already exit.", "stop bundle[a] activator Done.",
                                        "bundle[a] state changing[Stopping] -> [Resolved]"}));
}

TEST_F(StoppingABundle, IsRefusedUnlessItIsActive)
{
    const auto bundle = Load(collection.Bundle("a"));
    for (const auto state : {Bundle::BUNDLE_INSTALLED, Bundle::BUNDLE_UNINSTALLED, Bundle::BUNDLE_RESOLVED,
                             Bundle::BUNDLE_STARTING, Bundle::BUNDLE_STOPPING}) {
        bundle->SetCurState(state);
        log.Restart();
        EXPECT_EQ(Refusal([&] { manager.StopBundle(bundle); }), "bundle [a] not in active state can not be stopping.");
        EXPECT_EQ(bundle->GetCurState(), state);
        EXPECT_TRUE(log.Messages().empty());
    }
}

TEST_F(StoppingABundle, IsRefusedWhenItIsNotRegistered)
{
    const auto bundle = Load(collection.Bundle("a"));
    manager.UnloadBundle(bundle);
    bundle->SetCurState(Bundle::BUNDLE_ACTIVE);
    EXPECT_EQ(Refusal([&] { manager.StopBundle(bundle); }), "bundle [a] not found.");
    EXPECT_EQ(bundle->GetCurState(), Bundle::BUNDLE_ACTIVE);
}

TEST_F(StoppingABundle, LeavesItActiveWhenItsActivatorThrows)
{
    const auto bundle = LoadStarted(collection.Bundle("a"));
    GiveAChild("a");
    log.Restart();
    const Fault fault(Call::KILL, EPERM);
    EXPECT_EQ(Refusal([&] { manager.StopBundle(bundle); }), "bundle[a] activator stop :kill process[1000000000] fail.");
    EXPECT_EQ(bundle->GetCurState(), Bundle::BUNDLE_ACTIVE);
    EXPECT_TRUE(log.InOrder({"bundle[a] state changing[Active] -> [Stopping]", "stop bundle[a] activator...",
                             "bundle[a] state changing[Stopping] -> [Active]"}));
    EXPECT_FALSE(log.HasPart("activator Done."));
}

TEST_F(StoppingABundle, LeavesItsDependantsAndRequirementsRunning)
{
    const auto base = LoadStarted(collection.Bundle("base"));
    const auto middle = LoadStarted(collection.Bundle("middle").Requires("base"));
    const auto top = LoadStarted(collection.Bundle("top").Requires("middle"));
    manager.StopBundle(middle);
    EXPECT_EQ(base->GetCurState(), Bundle::BUNDLE_ACTIVE);
    EXPECT_EQ(top->GetCurState(), Bundle::BUNDLE_ACTIVE);
}

TEST_F(StoppingABundle, LetsItBeStartedAgainByTheSameActivator)
{
    const auto bundle = LoadStarted(collection.Bundle("a").ThreadMode().Library("libx.so", "Succeed", THREAD_ITEM));
    manager.StopBundle(bundle);
    EXPECT_EQ(log.Count("cancel done."), 1);
    manager.StartBundle(bundle);
    EXPECT_EQ(bundle->GetCurState(), Bundle::BUNDLE_ACTIVE);
    log.Restart();
    manager.StopBundle(bundle);
    EXPECT_EQ(log.Count("cancel done."), 2) << "the activator remembers the thread of the first start";
}

TEST_F(StoppingABundle, KeepsTheActivatorOfTheOldModeAfterAnUpdate)
{
    const auto bundle = LoadStarted(collection.Bundle("a"));
    collection.Bundle("a").ThreadMode().Library("libx.so", "Succeed", THREAD_ITEM).Write();
    bundle->Update();
    EXPECT_EQ(bundle->GetManifest()->GetLoadMode(), SystemServer::BundleManifest::THREAD_LOAD_MODE);
    log.Restart();
    manager.StopBundle(bundle);
    EXPECT_TRUE(log.Has("bundle process already exit."));
}

TEST_F(StoppingABundle, OfAllFollowsTheOrderOfTheNames)
{
    LoadStarted(collection.Bundle("c"));
    LoadResolved(collection.Bundle("b"));
    LoadStarted(collection.Bundle("a").Requires("c"));
    log.Restart();
    manager.StopAllBundles();
    EXPECT_TRUE(log.InOrder({"stop bundle[a] activator Done.", "stop bundle[c] activator Done."}));
    EXPECT_FALSE(log.HasPart("bundle[b]"));
    EXPECT_EQ(LoadedIn(manager, collection.Path()).size(), 3U);
}

TEST_F(StoppingABundle, OfAllEndsAtTheFirstFailure)
{
    const auto a = LoadStarted(collection.Bundle("a"));
    const auto b = LoadStarted(collection.Bundle("b"));
    const auto c = LoadStarted(collection.Bundle("c"));
    GiveAChild("b");
    const Fault fault(Call::KILL, EPERM);
    EXPECT_EQ(Refusal([&] { manager.StopAllBundles(); }), "bundle[b] activator stop :kill process[1000000000] fail.");
    EXPECT_EQ(a->GetCurState(), Bundle::BUNDLE_RESOLVED);
    EXPECT_EQ(b->GetCurState(), Bundle::BUNDLE_ACTIVE);
    EXPECT_EQ(c->GetCurState(), Bundle::BUNDLE_ACTIVE);
}
