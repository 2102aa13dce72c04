// What the server's own code costs inside one process: no log is written, no file is read, nothing is launched.
#include "bundle_manager.h"
#include "bundle_manifest.h"
#include "bundle_server.h"

#include <benchmark/benchmark.h>

#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <utility>

namespace {

using SystemServer::Bundle;
using SystemServer::BundleFactory;
using SystemServer::BundleManager;
using SystemServer::BundleManifest;
using SystemServer::BundleServer;
using SystemServer::BundleStorage;

std::string NameOf(std::int64_t number)
{
    return "bundle" + std::to_string(number);
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

/// A bundle's directory that holds a manifest and lies in memory.
class StorageInMemory : public BundleStorage {
public:
    StorageInMemory(const std::string& path, std::string manifest)
        : BundleStorage(path), m_manifest(std::move(manifest))
    {}
    std::istream* GetResourceFile(const std::string& /*relativePath*/) const override
    {
        return std::make_unique<std::istringstream>(m_manifest).release();
    }

private:
    const std::string m_manifest;
};

class FactoryInMemory : public BundleFactory {
public:
    explicit FactoryInMemory(std::map<std::string, std::string> manifests) : m_manifests(std::move(manifests)) {}
    std::shared_ptr<Bundle> CreateBundle(const std::string& bundleStoragePath) override
    {
        return std::make_shared<Bundle>(
            std::make_shared<StorageInMemory>(bundleStoragePath, m_manifests.at(bundleStoragePath)));
    }

private:
    const std::map<std::string, std::string> m_manifests; // by path
};

/// A manager with so many loaded bundles, each of which requires what dependenciesOf says.
std::unique_ptr<BundleManager> LoadedManager(std::int64_t count,
                                             const std::function<std::string(std::int64_t)>& dependenciesOf)
{
    std::map<std::string, std::string> manifests;
    for (std::int64_t i = 0; i < count; ++i) {
        manifests.emplace("/nowhere/" + NameOf(i), ManifestText(NameOf(i), dependenciesOf(i), 0));
    }
    auto manager = std::make_unique<BundleManager>(std::make_shared<FactoryInMemory>(manifests));
    for (const auto& entry : manifests) {
        manager->LoadBundle(entry.first);
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
        benchmark::DoNotOptimize(manager->FindBundleByPath("/nowhere/" + NameOf(next)));
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

/// Opens the way to what the event loop calls.
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
