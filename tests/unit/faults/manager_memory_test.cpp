#include "bundle_manager.h"
#include "bundle_thread_activator.h"
#include "inherited_state.h"
#include "support/eventually.h"
#include "support/fault.h"
#include "support/loaded_paths.h"
#include "support/own_process.h"
#include "unit/faults/memory_sweep.h"
#include "unit/processes/running_items.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <future>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

using SystemServer::Bundle;
using SystemServer::BundleManager;
using SystemServer::BundleManifest;
using SystemServer::BundleStorageDirFactory;

namespace {

// Too long for a string's internal buffer, so that copying a name can fail too.
constexpr const char NAME[] = "a bundle whose name has no place in a small string";
constexpr const char REQUIRED[] = "required by a bundle whose name is as long as that";

/// Operations of the manager, each with less memory than it needs.
class WithoutMemoryTheManager : public RunningItems {
public:
    WithoutMemoryTheManager() { SystemServer::BoundDescriptorLimit(); }

    using BundlePtr = std::shared_ptr<Bundle>;

    template <class Prepare, class Operation, class Check>
    void Sweep(const Prepare& prepare, const Operation& operation, const Check& check)
    {
        const NoPauses hurry;
        MemorySweep sweep;
        sweep.Run(
            AllocationFault::Of::CALLER,
            [&] {
                manager.emplace(std::make_shared<BundleStorageDirFactory>());
                prepare();
                m_descriptors = OwnProcess::Descriptors();
            },
            operation,
            [&] {
                EXPECT_TRUE(descriptorsMayStayOpen || OwnProcess::Descriptors() == m_descriptors);
                EXPECT_TRUE(IsUnlocked());
                check(sweep.RoundFailed());
                EXPECT_TRUE(ProcessTable::EndAll());
                EXPECT_FALSE(OwnProcess::HasChildren());
            });
    }

    /// Whether another thread can take the manager's lock.
    bool IsUnlocked()
    {
        auto lookUp = std::async(std::launch::async, [this] { manager->IsLoaded(""); });
        return lookUp.wait_for(PATIENCE) == std::future_status::ready;
    }

    BundlePtr Load(const std::string& path) { return manager->LoadBundle(path); }

    BundlePtr LoadResolved(const std::string& path)
    {
        BundlePtr bundle = Load(path);
        manager->ResolveBundle(bundle);
        return bundle;
    }

    BundlePtr LoadStarted(const std::string& path)
    {
        BundlePtr bundle = LoadResolved(path);
        manager->StartBundle(bundle);
        return bundle;
    }

    BundleBuilder Builder(const std::string& name = NAME) const { return collection.Bundle(name); }

    void LoadAll()
    {
        std::string directory = collection.Path();
        manager->LoadAllBundles(directory);
    }

    std::optional<BundleManager> manager;
    bool descriptorsMayStayOpen = false;

private:
    int m_descriptors = 0;
};

/// The work of the server's own threads, with less memory than it needs.
class WithoutMemoryAThread : public RunningItems {
public:
    /// @param check gets whether a thread has run out of memory
    template <class Prepare, class Trigger, class Check>
    void Sweep(const Prepare& prepare, const Trigger& trigger, const Check& check)
    {
        const NoPauses hurry;
        for (long round = 0, hasStruck = 1; hasStruck != 0 && !HasFailure(); ++round) {
            SCOPED_TRACE("failing once after " + std::to_string(round) + " allocations");
            prepare();
            log.Restart();
            {
                const AllocationFault fault(round, AllocationFault::Lasting::ONCE, AllocationFault::Of::OTHER_THREADS);
                trigger();
                hasStruck = fault.HasStruck() ? 1 : 0;
            }
            check(hasStruck != 0);
            EXPECT_TRUE(hasStruck != 0 || round > 0) << "it needs no memory: nothing was tested";
        }
    }
};

bool IsWhole(const BundleManifest& manifest)
{
    return manifest.GetBundleName() == NAME && manifest.GetDependencies() == std::vector<std::string>{REQUIRED} &&
           manifest.GetLoadItems().size() == 2 && manifest.GetLoadItems()[0].itemName == "a binary of some length" &&
           manifest.GetLoadItems()[1].entryFunc == "a function of some length";
}

BundleBuilder WithEverything(BundleBuilder builder)
{
    return builder.Requires(REQUIRED)
        .Item("a binary of some length", "")
        .Library("a library of some length.so", "a function of some length");
}

} // namespace

TEST_F(WithoutMemoryTheManager, ReadsAManifestWholeOrNotAtAll)
{
    const std::string text = ReadFile(WithEverything(Builder()).Write() + "/BundleManifest.ini");
    std::optional<std::istringstream> stream;
    std::unique_ptr<BundleManifest> manifest;
    Sweep([&] { stream.emplace(text); }, [&] { manifest = std::make_unique<BundleManifest>(*stream); },
          [&](bool failed) {
              EXPECT_NE(failed, manifest && IsWhole(*manifest));
              manifest.reset();
          });
}

TEST_F(WithoutMemoryTheManager, RegistersABundleWholeOrNotAtAll)
{
    const std::string path = WithEverything(Builder()).Install("#!/bin/sh\n").Write();
    BundlePtr bundle;
    Sweep([] {}, [&] { bundle = Load(path); },
          [&](bool failed) {
              EXPECT_EQ(failed, !bundle);
              EXPECT_EQ(LoadedIn(*manager, collection.Path()),
                        failed ? std::set<std::string>{} : std::set<std::string>{path});
              if (failed) {
                  bundle = Load(path);
              }
              ASSERT_TRUE(bundle);
              EXPECT_TRUE(IsWhole(*bundle->GetManifest()));
              EXPECT_EQ(manager->FindBundleByName(NAME), bundle);
              bundle.reset();
          });
}

TEST_F(WithoutMemoryTheManager, LeavesABundleInstalledThatItCannotResolve)
{
    const std::string path = Builder().Requires(REQUIRED).Write();
    const std::string requiredPath = Builder(REQUIRED).Write();
    BundlePtr bundle;
    BundlePtr required;
    Sweep(
        [&] {
            bundle = Load(path);
            required = Load(requiredPath);
        },
        [&] { manager->ResolveBundle(bundle); },
        [&](bool failed) {
            EXPECT_EQ(bundle->GetCurState(), failed ? Bundle::BUNDLE_INSTALLED : Bundle::BUNDLE_RESOLVED);
            if (failed) {
                manager->ResolveBundle(bundle); // a leftover mark would look like a circle
            }
            EXPECT_EQ(required->GetCurState(), Bundle::BUNDLE_RESOLVED);
        });
}

TEST_F(WithoutMemoryTheManager, LeavesNoChildOfABundleThatItCannotStart)
{
    BundlePtr bundle;
    Sweep(
        [&] {
            Load(Builder(REQUIRED).Write());
            bundle = LoadResolved(Builder().Requires(REQUIRED).Item("an item of some length", Sleeper()).Write());
        },
        [&] { manager->StartBundle(bundle); },
        [&](bool failed) {
            EXPECT_EQ(bundle->GetCurState(), failed ? Bundle::BUNDLE_RESOLVED : Bundle::BUNDLE_ACTIVE);
            EXPECT_EQ(ProcessTable::Entries().size(), failed ? 0U : 1U);
            EXPECT_EQ(OwnProcess::HasChildren(), !failed);
            EXPECT_EQ(ProcessTable::IsMonitorRunning(), !failed);
            if (failed) {
                manager->StartBundle(bundle);
            }
            EXPECT_EQ(ProcessTable::Entries().size(), 1U);
            ::kill(ProcessTable::Entries().begin()->first, SIGTERM);
            EXPECT_TRUE(Eventually(PATIENCE, [this] { return log.HasPart("abnormal termination, signal: 15."); }))
                << "it is not supervised";
            log.Restart();
        });
}

TEST_F(WithoutMemoryTheManager, StartsTheThreadOfALibraryOrLeavesNone)
{
    const std::string path =
        Builder().ThreadMode().Library("a library of some length.so", "Succeed", THREAD_ITEM).Write();
    const std::string done = std::string("bundle[") + NAME + "] dyn lib[a library of some length.so] activate done.";
    BundlePtr bundle;
    const int threads = OwnProcess::Threads();
    Sweep([&] { bundle = LoadResolved(path); }, [&] { manager->StartBundle(bundle); },
          [&](bool failed) {
              EXPECT_EQ(bundle->GetCurState(), failed ? Bundle::BUNDLE_RESOLVED : Bundle::BUNDLE_ACTIVE);
              if (failed) {
                  EXPECT_EQ(log.Count(done), 0);
                  manager->StartBundle(bundle);
              }
              EXPECT_TRUE(IsLogged(done));
              EXPECT_TRUE(Eventually(PATIENCE, [&] { return OwnProcess::Threads() <= threads + 1; }));
              manager->StopBundle(bundle);
              log.Restart();
          });
}

TEST_F(WithoutMemoryTheManager, LeavesABundleActiveThatItCannotStop)
{
    BundlePtr bundle;
    Sweep([&] { bundle = LoadStarted(Builder().Item("an item of some length", Sleeper()).Write()); },
          [&] { manager->StopBundle(bundle); },
          [&](bool failed) {
              EXPECT_EQ(bundle->GetCurState(), failed ? Bundle::BUNDLE_ACTIVE : Bundle::BUNDLE_RESOLVED);
              if (failed) {
                  manager->StopBundle(bundle);
              }
              EXPECT_TRUE(Eventually(PATIENCE, [] { return ProcessTable::Entries().empty(); }));
              EXPECT_TRUE(log.Has(std::string("normal stop ") + NAME + ".an item of some length..."));
              EXPECT_FALSE(log.HasPart("relaunch")) << "it was killed without a mark";
              EXPECT_TRUE(ProcessTable::Marks().empty());
              log.Restart();
          });
}

TEST_F(WithoutMemoryTheManager, KeepsABundleThatItCannotUnload)
{
    const std::string path = Builder().Uninstall("#!/bin/sh\n").Write();
    BundlePtr bundle;
    Sweep([&] { bundle = Load(path); }, [&] { manager->UnloadBundle(bundle); },
          [&](bool failed) {
              EXPECT_EQ(LoadedIn(*manager, collection.Path()),
                        failed ? std::set<std::string>{path} : std::set<std::string>{});
              if (failed) {
                  manager->UnloadBundle(bundle);
              }
              EXPECT_TRUE(LoadedIn(*manager, collection.Path()).empty());
          });
}

TEST_F(WithoutMemoryTheManager, UpdatesABundlesManifestWholeOrNotAtAll)
{
    const std::string path = Builder(REQUIRED).Write();
    BundlePtr bundle;
    Sweep(
        [&] {
            collection.BundleIn(REQUIRED).Name(REQUIRED).Write();
            bundle = Load(path);
            WithEverything(collection.BundleIn(REQUIRED).Name(NAME)).Update("#!/bin/sh\n").Write();
        },
        [&] { bundle->Update(); },
        [&](bool failed) {
            const auto manifest = bundle->GetManifest();
            EXPECT_TRUE(IsWhole(*manifest) || (failed && manifest->GetBundleName() == REQUIRED));
            bundle->Update();
            EXPECT_TRUE(IsWhole(*bundle->GetManifest()));
        });
}

// The framework leaves a descriptor open. That does no harm, because the server ends when its start-up runs out of
// memory.
TEST_F(WithoutMemoryTheManager, LoadsACollectionOrReportsThatItCannot)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the framework leaks an object that it cannot complete";
#endif
    descriptorsMayStayOpen = true;
    const std::string path = Builder().Write();
    Sweep([] {}, [&] { LoadAll(); },
          [&](bool failed) {
              if (failed) {
                  LoadAll();
              }
              EXPECT_EQ(LoadedIn(*manager, collection.Path()), std::set<std::string>{path});
          });
}

TEST_F(WithoutMemoryTheManager, UnloadsAsManyFailedBundlesOfAWalkAsItCan)
{
    Sweep(
        [&] {
            Builder().Requires("a bundle that is missing for good").Uninstall("#!/bin/sh\n").Write();
            Builder(REQUIRED).Item("an item of some length", Sleeper()).Write();
            LoadAll();
        },
        [&] {
            manager->ResolveAllBundles();
            manager->StartAllBundles();
        },
        [&](bool failed) {
            EXPECT_EQ(ProcessTable::Entries().size(), failed ? 0U : 1U);
            manager->ResolveAllBundles();
            manager->StartAllBundles();
            EXPECT_EQ(ProcessTable::Entries().size(), 1U);
            EXPECT_EQ(LoadedIn(*manager, collection.Path()), std::set<std::string>{collection / REQUIRED});
        });
}

TEST_F(WithoutMemoryAThread, RelaunchesADeadItemOnceItHasMemory)
{
    for (const bool isKilled : {true, false}) {
        std::string path;
        int first = 0;
        Sweep(
            [&] {
                ProcessTable::EndAll();
                WriteFile(outside / "shot", ""); // from its next start on the item keeps running
                path = collection.Bundle(NAME).Item("an item of some length", ExitingAtTrigger(2)).Write();
                if (!isKilled) {
                    std::filesystem::remove(outside / "shot");
                    std::filesystem::remove(outside / "trigger");
                }
                Launch(path + "/bin/an item of some length", NAME);
                Launch(collection.Bundle(REQUIRED).Item("another item", Sleeper()).Write() + "/bin/another item");
                first = PidOf(std::string(NAME) + ".an item of some length");
            },
            [&] {
                if (isKilled) {
                    ::kill(first, SIGKILL);
                } else {
                    PullTrigger();
                }
                EXPECT_TRUE(IsLogged(std::string(NAME) + ".an item of some length relaunch done."));
                EXPECT_TRUE(Eventually(PATIENCE, [] { return ProcessTable::Entries().size() == 2; }));
            },
            [&](bool hasStruck) {
                const std::string record =
                    "out of memory at the end of process[" + std::to_string(first) + "], trying again.";
                EXPECT_EQ(log.Count(record), hasStruck ? 1 : 0);
                EXPECT_EQ(::kill(PidOf(std::string(NAME) + ".an item of some length"), 0), 0);
                EXPECT_EQ(log.CountPart("abnormal termination, signal: 9."), isKilled ? 2 : 0);
                EXPECT_TRUE(ProcessTable::IsMonitorRunning());
            });
    }
}

TEST_F(WithoutMemoryAThread, ProtectsTheServerFromALibrarysFailure)
{
    const std::string path =
        collection.Bundle(NAME).ThreadMode().Library("a library of some length.so", "Succeed", THREAD_ITEM).Write();
    const std::string done = std::string("bundle[") + NAME + "] dyn lib[a library of some length.so] activate done.";
    const std::string failed = "activate item[a library of some length.so] fail. exception info: [std::bad_alloc].";
    const auto bundle = std::make_shared<Bundle>(std::make_shared<SystemServer::BundleStorageDir>(path));
    const auto activator = std::make_shared<SystemServer::BundleThreadActivator>(bundle);
    const int threads = OwnProcess::Threads();
    Sweep([] {},
          [&] {
              activator->Start();
              EXPECT_TRUE(Eventually(PATIENCE, [&] { return log.Has(done) || log.Has(failed); }));
              EXPECT_TRUE(Eventually(PATIENCE, [&] { return OwnProcess::Threads() <= threads + 1; }));
          },
          [&](bool hasStruck) {
              EXPECT_EQ(log.Count(failed), hasStruck ? 1 : 0);
              EXPECT_EQ(log.Count(done), hasStruck ? 0 : 1);
              activator->Stop();
          });
}
