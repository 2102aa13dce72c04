#include "unit/manager/managed_bundles.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <stdexcept>
#include <vector>

namespace {

class ResolvingABundle : public ManagedBundles {
public:
    BundlePtr Put(const std::string& name, const std::string& required = "")
    {
        memory->PutBundle(name, required);
        return memoryManager.LoadBundle(name);
    }

    std::set<std::string> Registered() { return LoadedOf(memoryManager, memory->Paths()); }
};

class ResolvingAllBundles : public ResolvingABundle {};

using Messages = std::vector<std::string>;

} // namespace

TEST_F(ResolvingABundle, MovesItToResolved)
{
    const auto bundle = Put("a");
    log.Restart();
    memoryManager.ResolveBundle(bundle);
    EXPECT_EQ(bundle->GetCurState(), Bundle::BUNDLE_RESOLVED);
    EXPECT_EQ(log.Messages(), (Messages{"resolve bundle[a] dependencies...", "resolve bundle dependencies done.",
                                        "bundle[a] state changing[Installed] -> [Resolved]"}));
    EXPECT_EQ(log.Records().at(0).level, "INFO");
}

TEST_F(ResolvingABundle, AcceptsAnUninstalledOne)
{
    const auto bundle = Put("a");
    bundle->SetCurState(Bundle::BUNDLE_UNINSTALLED);
    memoryManager.ResolveBundle(bundle);
    EXPECT_EQ(bundle->GetCurState(), Bundle::BUNDLE_RESOLVED);
}

TEST_F(ResolvingABundle, ResolvesItsRequirementsFirst)
{
    const auto a = Put("a", "b");
    const auto b = Put("b");
    log.Restart();
    memoryManager.ResolveBundle(a);
    EXPECT_EQ(b->GetCurState(), Bundle::BUNDLE_RESOLVED);
    EXPECT_EQ(log.Messages(),
              (Messages{"resolve bundle[a] dependencies...", "resolve bundle[b]...",
                        "resolve bundle[b] dependencies...", "resolve bundle dependencies done.",
                        "bundle[b] state changing[Installed] -> [Resolved]", "resolve bundle done.",
                        "resolve bundle dependencies done.", "bundle[a] state changing[Installed] -> [Resolved]"}));
}

TEST_F(ResolvingABundle, ResolvesItsDependenciesInOrderAndRepeatedOnesOnce)
{
    const auto a = Put("a", "d, b, d, c");
    Put("b");
    Put("c", "b");
    Put("d");
    log.Restart();
    memoryManager.ResolveBundle(a);
    EXPECT_TRUE(log.InOrder({"resolve bundle[d]...", "resolve bundle[b]...", "resolve bundle[c]..."}));
    EXPECT_EQ(log.CountPart("]..."), 3);
}

TEST_F(ResolvingABundle, SkipsRequiredBundlesThatAreResolved)
{
    const auto a = Put("a", "b, c, d, e");
    Put("b")->SetCurState(Bundle::BUNDLE_RESOLVED);
    Put("c")->SetCurState(Bundle::BUNDLE_STARTING);
    Put("d")->SetCurState(Bundle::BUNDLE_STOPPING);
    Put("e")->SetCurState(Bundle::BUNDLE_ACTIVE);
    log.Restart();
    memoryManager.ResolveBundle(a);
    EXPECT_EQ(log.Messages(), (Messages{"resolve bundle[a] dependencies...", "resolve bundle dependencies done.",
                                        "bundle[a] state changing[Installed] -> [Resolved]"}));
}

TEST_F(ResolvingABundle, IsRefusedForOneThatIsResolved)
{
    const auto bundle = Put("a");
    for (const auto state :
         {Bundle::BUNDLE_RESOLVED, Bundle::BUNDLE_STARTING, Bundle::BUNDLE_STOPPING, Bundle::BUNDLE_ACTIVE}) {
        bundle->SetCurState(state);
        log.Restart();
        EXPECT_EQ(Refusal([&] { memoryManager.ResolveBundle(bundle); }),
                  "bundle[a] already resolved can not be resolved twice.");
        EXPECT_EQ(bundle->GetCurState(), state);
        EXPECT_TRUE(log.Messages().empty());
    }
}

TEST_F(ResolvingABundle, IsRefusedWhenARequiredBundleIsNotRegistered)
{
    const auto a = Put("a", "x");
    log.Restart();
    EXPECT_EQ(Refusal([&] { memoryManager.ResolveBundle(a); }), "required bundle :[x] not found.");
    EXPECT_EQ(a->GetCurState(), Bundle::BUNDLE_INSTALLED);
    EXPECT_EQ(log.Messages(), Messages{"resolve bundle[a] dependencies..."});
}

TEST_F(ResolvingABundle, ComparesRequiredNamesByteByByte)
{
    const auto a = Put("a", "B");
    Put("b");
    EXPECT_EQ(Refusal([&] { memoryManager.ResolveBundle(a); }), "required bundle :[B] not found.");
}

TEST_F(ResolvingABundle, IsRefusedWhenItRequiresItself)
{
    const auto a = Put("a", "a");
    EXPECT_EQ(Refusal([&] { memoryManager.ResolveBundle(a); }), "bundle circular reference occur : <a,a>.");
    EXPECT_EQ(a->GetCurState(), Bundle::BUNDLE_INSTALLED);
}

TEST_F(ResolvingABundle, IsRefusedInACircleOfTwo)
{
    const auto a = Put("a", "b");
    const auto b = Put("b", "a");
    EXPECT_EQ(Refusal([&] { memoryManager.ResolveBundle(a); }), "bundle circular reference occur : <b,a>.");
    EXPECT_EQ(a->GetCurState(), Bundle::BUNDLE_INSTALLED);
    EXPECT_EQ(b->GetCurState(), Bundle::BUNDLE_INSTALLED);
}

TEST_F(ResolvingABundle, IsRefusedInACircleOfThree)
{
    const auto a = Put("a", "b");
    Put("b", "c");
    Put("c", "a");
    EXPECT_EQ(Refusal([&] { memoryManager.ResolveBundle(a); }), "bundle circular reference occur : <c,a>.");
}

TEST_F(ResolvingABundle, CanBeTriedAgainAfterEachKindOfFailure)
{
    // A leftover mark would look like a circle.
    const auto a = Put("a", "b");
    const auto b = Put("b", "x");
    const std::string missing = "required bundle :[x] not found.";
    EXPECT_EQ(Refusal([&] { memoryManager.ResolveBundle(a); }), missing);
    EXPECT_EQ(Refusal([&] { memoryManager.ResolveBundle(a); }), missing);
    EXPECT_EQ(Refusal([&] { memoryManager.ResolveBundle(b); }), missing);
    Put("x");
    memoryManager.ResolveBundle(a);
    EXPECT_EQ(a->GetCurState(), Bundle::BUNDLE_RESOLVED);
    EXPECT_EQ(b->GetCurState(), Bundle::BUNDLE_RESOLVED);
}

TEST_F(ResolvingABundle, StartsNothingAndRunsNoScript)
{
    const auto bundle = Load(collection.Bundle("media").Item("mediad").Update(Noting("update")));
    manager.ResolveBundle(bundle);
    EXPECT_EQ(Notes(), "");
    EXPECT_FALSE(log.HasPart("start bundle"));
}

TEST_F(ResolvingAllBundles, FollowsTheOrderOfTheNamesAndResolvesNoneTwice)
{
    Put("c");
    Put("b");
    Put("a", "b");
    log.Restart();
    memoryManager.ResolveAllBundles();
    EXPECT_EQ(log.Messages(),
              (Messages{"resolve bundle[a]...", "resolve bundle[a] dependencies...", "resolve bundle[b]...",
                        "resolve bundle[b] dependencies...", "resolve bundle dependencies done.",
                        "bundle[b] state changing[Installed] -> [Resolved]", "resolve bundle done.",
                        "resolve bundle dependencies done.", "bundle[a] state changing[Installed] -> [Resolved]",
                        "resolve bundle done.", "resolve bundle[c]...", "resolve bundle[c] dependencies...",
                        "resolve bundle dependencies done.", "bundle[c] state changing[Installed] -> [Resolved]",
                        "resolve bundle done."}));
}

TEST_F(ResolvingAllBundles, DoesNothingTheSecondTime)
{
    Put("a");
    memoryManager.ResolveAllBundles();
    log.Restart();
    memoryManager.ResolveAllBundles();
    EXPECT_TRUE(log.Messages().empty());
}

TEST_F(ResolvingAllBundles, UnloadsACircleAsAWhole)
{
    Put("a", "b");
    Put("b", "c");
    Put("c", "a");
    Put("d");
    memoryManager.ResolveAllBundles();
    EXPECT_TRUE(
        log.HasError("failed to resolve bundle[a] :Invalid argument: bundle circular reference occur : <c,a>."));
    EXPECT_TRUE(
        log.HasError("failed to resolve bundle[b] :Invalid argument: bundle circular reference occur : <a,b>."));
    EXPECT_TRUE(
        log.HasError("failed to resolve bundle[c] :Invalid argument: bundle circular reference occur : <b,c>."));
    EXPECT_EQ(Registered(), std::set<std::string>{"d"});
}

TEST_F(ResolvingAllBundles, FailsADependantWithTheReasonOfItsRequirement)
{
    const auto a = Put("a", "b");
    const auto b = Put("b", "x");
    log.Restart();
    memoryManager.ResolveAllBundles();
    EXPECT_EQ(log.Messages(),
              (Messages{"resolve bundle[a]...", "resolve bundle[a] dependencies...", "resolve bundle[b]...",
                        "resolve bundle[b] dependencies...",
                        "failed to resolve bundle[a] :Invalid argument: required bundle :[x] not found.",
                        "resolve bundle[b]...", "resolve bundle[b] dependencies...",
                        "failed to resolve bundle[b] :Invalid argument: required bundle :[x] not found."}))
        << "b is resolved for a, and again for itself";
    EXPECT_TRUE(Registered().empty());
    EXPECT_EQ(a->GetCurState(), Bundle::BUNDLE_INSTALLED);
    EXPECT_EQ(b->GetCurState(), Bundle::BUNDLE_INSTALLED);
}

TEST_F(ResolvingAllBundles, KeepsBundlesThatWereResolvedBeforeAFailure)
{
    Put("a", "b, x");
    const auto b = Put("b");
    memoryManager.ResolveAllBundles();
    EXPECT_EQ(b->GetCurState(), Bundle::BUNDLE_RESOLVED);
    EXPECT_EQ(Registered(), std::set<std::string>{"b"});
}

TEST_F(ResolvingAllBundles, UnloadsFailedBundlesAfterTheWalkInTheOrderOfTheFailures)
{
    for (const char* const name : {"b", "a", "c"}) {
        Load(collection.Bundle(name).Requires("missing").Uninstall(Noting(name)));
    }
    log.Restart();
    manager.ResolveAllBundles();
    EXPECT_EQ(Notes(), "a\nb\nc\n");
    EXPECT_TRUE(log.InOrder({"failed to resolve bundle[c] :Invalid argument: required bundle :[missing] not found.",
                             "run script[" + (collection / "a") + "/./script/uninstall.sh]..."}));
    EXPECT_TRUE(LoadedIn(manager, collection.Path()).empty());
}

TEST_F(ResolvingAllBundles, LeavesNoMarkOfACircle)
{
    Put("a", "b");
    Put("b", "a");
    memoryManager.ResolveAllBundles();
    Put("a", "b");
    Put("b");
    memoryManager.ResolveAllBundles();
    EXPECT_EQ(Registered(), (std::set<std::string>{"a", "b"}));
}
