#include "dependency_chains.h"
#include "managed_bundles.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

using SystemServer::DependencyChains;

namespace {

constexpr int LONGEST = 10'000;

/// The length of a chain in a graph that is given as the dependencies of each name.
class TheLongestChain : public ::testing::Test {
public:
    std::size_t From(const std::string& name) { return chains.LengthFrom(name); }

    std::map<std::string, std::vector<std::string>> graph;
    DependencyChains chains{[this](const std::string& name) {
        const auto entry = graph.find(name);
        return entry == graph.end() ? nullptr : std::make_shared<const std::vector<std::string>>(entry->second);
    }};
};

class AChainOfBundles : public ManagedBundles {
public:
    static std::string NameOf(int number)
    {
        const std::string digits = std::to_string(number);
        return "b" + std::string(5 - digits.size(), '0') + digits;
    }

    /// Writes a chain that ends at the highest number, or at number 0. Returns the name of its first bundle.
    std::string Load(int length, bool isFirstNameFirst = true)
    {
        for (int i = 0; i < length; ++i) {
            const int required = isFirstNameFirst ? i + 1 : i - 1;
            memory->PutBundle(NameOf(i), required >= 0 && required < length ? NameOf(required) : "");
            memoryManager.LoadBundle(NameOf(i));
        }
        log.Restart();
        return NameOf(isFirstNameFirst ? 0 : length - 1);
    }

    int CountIn(Bundle::BUNDLE_STATE_E state)
    {
        int count = 0;
        for (const std::string& name : memory->Paths()) {
            const BundlePtr bundle = memoryManager.FindBundleByName(name);
            count += bundle && bundle->GetCurState() == state ? 1 : 0;
        }
        return count;
    }
};

void* CallFunction(void* function)
{
    (*static_cast<std::function<void()>*>(function))();
    return nullptr;
}

/// Runs the operation on a thread with much less stack than the server's threads have by default.
void OnASmallStack(std::function<void()> function)
{
    const std::size_t size = std::max(std::size_t{256} * 1024, static_cast<std::size_t>(PTHREAD_STACK_MIN));
    pthread_attr_t attributes;
    ASSERT_EQ(::pthread_attr_init(&attributes), 0);
    ASSERT_EQ(::pthread_attr_setstacksize(&attributes, size), 0);
    pthread_t thread{};
    ASSERT_EQ(::pthread_create(&thread, &attributes, CallFunction, &function), 0);
    EXPECT_EQ(::pthread_join(thread, nullptr), 0);
    ::pthread_attr_destroy(&attributes);
}

} // namespace

TEST_F(TheLongestChain, OfABundleThatRequiresNothingIsTheBundleItself)
{
    graph = {{"a", {}}};
    EXPECT_EQ(From("a"), 1U);
}

TEST_F(TheLongestChain, CountsEachBundleOnTheLongestWayDown)
{
    graph = {{"a", {"b", "d"}}, {"b", {"c"}}, {"c", {"d"}}, {"d", {}}, {"e", {"d", "a", "d"}}};
    EXPECT_EQ(From("a"), 4U);
    EXPECT_EQ(From("d"), 1U);
    EXPECT_EQ(From("e"), 5U);
}

TEST_F(TheLongestChain, EndsAtAMissingBundle)
{
    graph = {{"a", {"b"}}, {"b", {"x"}}};
    EXPECT_EQ(From("a"), 2U);
    EXPECT_EQ(From("x"), 0U);
}

TEST_F(TheLongestChain, EndsWhereItReturnsToItself)
{
    graph = {{"a", {"b"}}, {"b", {"c"}}, {"c", {"a", "c"}}};
    EXPECT_EQ(From("a"), 3U);
}

TEST_F(TheLongestChain, NeedsNoStackForItsLength)
{
    constexpr int length = 100'000;
    for (int i = 0; i < length; ++i) {
        graph[std::to_string(i)] = {std::to_string(i + 1)};
    }
    OnASmallStack([this] { EXPECT_EQ(From("0"), static_cast<std::size_t>(length)); });
}

TEST_F(AChainOfBundles, MayHaveTheGreatestLengthOnASmallStack)
{
    const std::string first = Load(LONGEST);
    OnASmallStack([&] {
        memoryManager.ResolveBundle(memoryManager.FindBundleByName(first));
        memoryManager.StartBundle(memoryManager.FindBundleByName(first));
    });
    EXPECT_EQ(CountIn(Bundle::BUNDLE_ACTIVE), LONGEST);
}

TEST_F(AChainOfBundles, IsUndoneOnASmallStackWhenItsLastBundleDoesNotStart)
{
    const std::string first = Load(LONGEST);
    memory->Put(NameOf(LONGEST - 1), "[global]\nbundle_name = " + NameOf(LONGEST - 1) +
                                         "\nbundle_load_mode = 1\n[item]\nitem_name = no-library\n");
    memoryManager.UnloadBundle(memoryManager.FindBundleByName(NameOf(LONGEST - 1)));
    memoryManager.LoadBundle(NameOf(LONGEST - 1));
    OnASmallStack([&] {
        memoryManager.ResolveBundle(memoryManager.FindBundleByName(first));
        EXPECT_NE(Refusal([&] { memoryManager.StartBundle(memoryManager.FindBundleByName(first)); }), "");
    });
    EXPECT_EQ(CountIn(Bundle::BUNDLE_RESOLVED), LONGEST);
    const std::string before = "bundle[" + NameOf(1) + "] state changing[Starting] -> [Resolved]";
    EXPECT_TRUE(log.InOrder({before, "bundle[" + first + "] state changing[Starting] -> [Resolved]"}));
}

TEST_F(AChainOfBundles, IsRefusedWhenItIsTooLongAndKeepsTheBundlesThatAreNot)
{
    for (const bool isFirstNameFirst : {true, false}) {
        const std::string first = Load(LONGEST + 1, isFirstNameFirst);
        memoryManager.ResolveAllBundles();
        const std::string bundle = "bundle[" + first + "]";
        EXPECT_TRUE(log.HasError("failed to resolve " + bundle + " :Invalid argument: " + bundle +
                                 " begins a dependency chain of 10001 bundles, at most 10000 are allowed."));
        EXPECT_EQ(CountIn(Bundle::BUNDLE_RESOLVED), LONGEST);
        EXPECT_EQ(memoryManager.FindBundleByName(first), nullptr);
        memoryManager.UnloadAllBundles();
    }
}

TEST_F(AChainOfBundles, IsRefusedForALaterBundleEvenIfAllItsRequirementsRun)
{
    const std::string first = Load(LONGEST);
    memoryManager.ResolveBundle(memoryManager.FindBundleByName(first));
    memory->PutBundle("a", first);
    const auto late = memoryManager.LoadBundle("a");
    EXPECT_EQ(Refusal([&] { memoryManager.ResolveBundle(late); }),
              "bundle[a] begins a dependency chain of 10001 bundles, at most 10000 are allowed.");
    EXPECT_EQ(late->GetCurState(), Bundle::BUNDLE_INSTALLED);
}
