#ifndef BUNDLE_MANAGER_H
#define BUNDLE_MANAGER_H

#include "bundle_activator.h"
#include "bundle_factory.h"
#include "dependency_chains.h"

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace SystemServer {

class ResolvingMark;
class StateRollback;
template <class Undo> class WaitingBundles;

/// The registry of all bundles, and the operations on them. Any thread may call them. Each lifecycle operation holds
/// one recursive mutex for its whole length, scripts and launches included. So a slow script makes every other
/// operation wait. The operations over all bundles hold the mutex for one bundle at a time.
class BundleManager {
public:
    struct BUNDLE_INFO_S {
        std::shared_ptr<Bundle> pBundle;
        std::shared_ptr<BundleActivator> pActivator; ///< made when the bundle was loaded, used for every start and stop
    };

    explicit BundleManager(std::shared_ptr<BundleFactory> bundleFactory);
    /// Releases the bundles and does nothing to them: their items keep running.
    virtual ~BundleManager();
    BundleManager(const BundleManager&) = delete;
    BundleManager& operator=(const BundleManager&) = delete;

    /// Loads every directory of the collection. A directory that fails with a Poco::Exception is logged and skipped.
    /// @throws Poco::Exception the collection cannot be read
    /// @throws std::out_of_range a manifest has an item name of fewer than three characters; the rest is not loaded
    void LoadAllBundles(std::string& dir);

    /// Creates, installs and registers the bundle in one directory. "install.sh" runs before the name and the load mode
    /// are checked. So a bundle that is then refused has been installed all the same.
    /// @param path kept as given: FindBundleByPath compares it byte by byte
    /// @return shared with the registry; empty when refused, the log says why
    /// @throws what BundleFactory::CreateBundle throws; nothing is registered and no script has run
    std::shared_ptr<Bundle> LoadBundle(const std::string& path);

    /// Runs "uninstall.sh" and takes the bundle off the registry. Its state stays, and so do bundles that require it.
    /// @throws Poco::InvalidArgumentException it is Starting, Stopping, Active or not registered; nothing has changed
    void UnloadBundle(std::shared_ptr<Bundle> bundle);

    /// Stops the Active bundles and unloads all bundles, in name order.
    /// @throws what StopBundle and UnloadBundle throw; the bundles after that one stay
    void UnloadAllBundles();

    /// Resolves every unresolved bundle, required bundles first. Bundles that fail are unloaded at the end.
    void ResolveAllBundles();

    /// Resolves the bundles that it requires, depth first, then the bundle itself.
    /// @throws Poco::InvalidArgumentException it is resolved already, requires a bundle that is not registered, is part
    /// of a circle, or begins a chain of more than 10,000 bundles that require each other; its state is unchanged
    void ResolveBundle(std::shared_ptr<Bundle> bundle);

    /// Starts every Resolved bundle, required bundles first. Bundles that fail are unloaded at the end.
    void StartAllBundles();

    /// Starts the bundles it requires, then the bundle itself.
    /// @throws Poco::Exception it is not Resolved (nothing has changed), or its start failed: it is Resolved again,
    /// bundles that were started before the failure keep running
    void StartBundle(std::shared_ptr<Bundle> bundle);

    /// Stops the bundle, not those that require it.
    /// @throws Poco::Exception it is not Active (nothing has changed), or it cannot be stopped: it is Active again
    void StopBundle(std::shared_ptr<Bundle> bundle);

    /// Stops every Active bundle in name order.
    /// @throws what StopBundle throws; the bundles after that one run on
    void StopAllBundles();

    /// Both return the bundle shared with the registry; empty, with an error record, when there is none.
    std::shared_ptr<Bundle> FindBundleByName(const std::string& name);
    std::shared_ptr<Bundle> FindBundleByPath(const std::string& path);

    /// Whether a bundle of that directory is registered. Writes no record. The path is compared as FindBundleByPath
    /// does it.
    bool IsLoaded(const std::string& path);

private:
    template <class Visit> void ForEachBundle(const Visit& visit);
    std::shared_ptr<Bundle> BundleAt(const std::string& path) const;
    std::shared_ptr<Bundle> RequiredBundle(const std::string& name) const;
    DependencyChains Chains() const;
    void Resolve(const std::shared_ptr<Bundle>& bundle, DependencyChains& chains);
    std::shared_ptr<Bundle> ResolveBundleDependencies(WaitingBundles<ResolvingMark>& waiting);
    bool IsResolving(std::shared_ptr<Bundle> bundle) const;
    std::shared_ptr<Bundle> StartBundleDependencies(WaitingBundles<StateRollback>& waiting);
    void StartActivator(const Bundle& bundle) const;
    std::shared_ptr<BundleActivator> ActivatorOf(const std::string& name) const;

    const std::shared_ptr<BundleFactory> m_bundleFactory;   // immutable
    std::map<std::string, BUNDLE_INFO_S> m_bundleInfoMap;   // by the manifest's name; guarded by m_mutex
    std::set<std::shared_ptr<Bundle>> m_resolvingBundleSet; // begun and not ended; guarded by m_mutex
    std::recursive_mutex m_mutex;                           // recursive: the operations use one another
};

/// Collects the bundles that fail during a walk over all bundles, and unloads them after the walk. So the registry does
/// not change during the walk, and a dependant that fails after its requirement still finds it.
class BundleFailProcessor {
public:
    explicit BundleFailProcessor(BundleManager* bundleManager) : m_bundleManager(bundleManager) {}
    /// Skips a bundle that another thread or a later dependant has meanwhile started or unloaded.
    ~BundleFailProcessor();
    BundleFailProcessor(const BundleFailProcessor&) = delete;
    BundleFailProcessor& operator=(const BundleFailProcessor&) = delete;

    std::vector<std::shared_ptr<Bundle>> m_failedBundles; ///< as they failed; the walking thread's

private:
    BundleManager* const m_bundleManager; // not owned; outlives the walk
};

} // namespace SystemServer

#endif
