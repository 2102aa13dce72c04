// The cost of the server's own code inside one process. It writes no log, reads no file and launches nothing.
#include "bundle_manager.h"
#include "bundle_manifest.h"
#include "bundle_server.h"
#include "support/in_memory_factory.h"

#include <benchmark/benchmark.h>

#include <functional>
#include <memory>
#include <sstream>
#include <string>

namespace {

using SystemServer::BundleManager;
using SystemServer::BundleManifest;
using SystemServer::BundleServer;

std::string NameOf(std::int64_t number)
{
    return "bundle" + std::to_string(number);
}

std::string PathOf(std::int64_t number)
{
    return "/nowhere/" + NameOf(number);
}

std::string ManifestText(const std::string& name, const std::string& dependencies, std::int64_t items)
{
    std::string text = "[global]\nbundle_name = " + name + "\nbundle_load_mode = 0\n";
    if (!dependencies.empty()) {
        text += "bundle_dependencies = " + dependencies + "\n";
    }
    for (std::int64_t i = 0; i < items; ++i) {
        text += "[item" + std::to_string(i) + "]\nitem_name = program" + std::to_string(i) + "\n";
    }
    return text;
}

/// A manager with that many loaded bundles. dependenciesOf gives the requirements of each.
std::unique_ptr<BundleManager> LoadedManager(std::int64_t count,
                                             const std::function<std::string(std::int64_t)>& dependenciesOf)
{
    const auto factory = std::make_shared<InMemoryFactory>();
    auto manager = std::make_unique<BundleManager>(factory);
    for (std::int64_t i = 0; i < count; ++i) {
        factory->Put(PathOf(i), ManifestText(NameOf(i), dependenciesOf(i), 0));
        manager->LoadBundle(PathOf(i));
    }
    return manager;
}

std::string NoDependencies(std::int64_t /*number*/)
{
    return {};
}

void ManifestParsing(benchmark::State& state)
{
    const std::string text = ManifestText("bundle", "first, second", state.range(0));
    for (auto _ : state) {
        std::istringstream stream(text);
        benchmark::DoNotOptimize(BundleManifest(stream).GetLoadItems().size());
    }
}
BENCHMARK(ManifestParsing)->Arg(0)->Arg(1)->Arg(10)->Arg(100);

void FindByName(benchmark::State& state)
{
    const auto manager = LoadedManager(state.range(0), NoDependencies);
    std::int64_t next = 0;
    for (auto _ : state) {
        next = (next + 7) % state.range(0);
        benchmark::DoNotOptimize(manager->FindBundleByName(NameOf(next)));
    }
}
BENCHMARK(FindByName)->RangeMultiplier(10)->Range(10, 10000);

void FindByPath(benchmark::State& state)
{
    const auto manager = LoadedManager(state.range(0), NoDependencies);
    std::int64_t next = 0;
    for (auto _ : state) {
        next = (next + 7) % state.range(0);
        benchmark::DoNotOptimize(manager->FindBundleByPath(PathOf(next)));
    }
}
BENCHMARK(FindByPath)->RangeMultiplier(10)->Range(10, 10000);

void ResolveAll(benchmark::State& state, const std::function<std::string(std::int64_t)>& dependenciesOf)
{
    for (auto _ : state) {
        state.PauseTiming();
        auto manager = LoadedManager(state.range(0), dependenciesOf);
        state.ResumeTiming();
        manager->ResolveAllBundles();
        state.PauseTiming();
        manager.reset();
        state.ResumeTiming();
    }
    state.counters["bundle"] =
        benchmark::Counter(static_cast<double>(state.range(0)),
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

/// Each bundle requires the next one.
void ResolveChain(benchmark::State& state)
{
    ResolveAll(state, [last = state.range(0) - 1](std::int64_t i) { return i < last ? NameOf(i + 1) : ""; });
}
BENCHMARK(ResolveChain)->RangeMultiplier(10)->Range(10, 10000)->Unit(benchmark::kMicrosecond);

/// Every bundle requires the same ten.
void ResolveWide(benchmark::State& state)
{
    constexpr std::int64_t required = 10;
    ResolveAll(state, [](std::int64_t i) {
        std::string names;
        for (std::int64_t k = 0; i >= required && k < required; ++k) {
            names += NameOf(k) + ",";
        }
        return names;
    });
}
BENCHMARK(ResolveWide)->RangeMultiplier(10)->Range(10, 10000)->Unit(benchmark::kMicrosecond);

/// Makes the function that the event loop calls accessible.
class Dispatcher : public BundleServer {
public:
    using BundleServer::ProcessMsg;
};

void MessageDispatch(benchmark::State& state)
{
    constexpr std::uint8_t unknownMethod = 5;
    lumo_message message{};
    bolt_connection connection{-1};
    for (auto _ : state) {
        message.header.method = unknownMethod;
        Dispatcher::ProcessMsg(&message, &connection);
        benchmark::DoNotOptimize(message.header.status);
    }
}
BENCHMARK(MessageDispatch);

} // namespace

BENCHMARK_MAIN();
