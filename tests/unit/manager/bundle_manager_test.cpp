#include "unit/manager/managed_bundles.h"

#include "support/fault.h"

#include <atomic>
#include <cerrno>
#include <memory>
#include <system_error>
#include <thread>

using SystemServer::BundleManager;

namespace {

class FindingABundle : public ManagedBundles {};
class TheManager : public ManagedBundles {};

} // namespace

TEST_F(FindingABundle, ByNameFailsWithARecord)
{
    EXPECT_FALSE(manager.FindBundleByName("media"));
    EXPECT_TRUE(log.HasError("bundle [media] not found."));
}

TEST_F(FindingABundle, ByPathComparesThePathExactly)
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

TEST_F(TheManager, ThrowsWhenItsLockFails)
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

TEST_F(TheManager, WalksOverItsBundlesWhileOthersAddAndRemoveThem)
{
    for (const char* const name : {"a", "m", "z"}) {
        memory->PutBundle(name);
    }
    memory->PutBundle("k", "missing"); // fails to load in each walk that finds it
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
        memoryManager.IsLoaded("a");
    }
    other.join();
    EXPECT_TRUE(memoryManager.FindBundleByName("a"));
    EXPECT_TRUE(memoryManager.FindBundleByName("m"));
    EXPECT_TRUE(memoryManager.FindBundleByName("z"));
}
