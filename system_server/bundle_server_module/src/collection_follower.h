#ifndef COLLECTION_FOLLOWER_H
#define COLLECTION_FOLLOWER_H

#include "bundle_dir_watcher.h"
#include "bundle_manager.h"

#include <future>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace SystemServer {

/// Adds, updates and removes bundles when the collection changes. The three handlers run on the watcher's thread, one
/// at a time. Each may take seconds. A handler must not run during start-up's walks over all bundles. So the handlers
/// wait at a gate until start-up has started the collection. They throw only std::bad_alloc, which the watcher logs.
class CollectionFollower {
public:
    /// Called once, before the gate is opened and before any script runs.
    /// @param watcher not owned. Its thread is joined before the follower is destroyed
    void SetWatcher(BundleDirWatcher& watcher) { m_watcher = &watcher; }

    /// Lets the handlers continue with this manager. With null they do nothing. Only the first call has an effect.
    /// Called on the main thread.
    void OpenGate(std::shared_ptr<BundleManager> manager);

    /// Waits a second, because a copy may still be going on. Then loads, resolves and starts the directory's bundle.
    /// Ignores plain files and a directory that is being deleted. Updates a bundle that start-up has meanwhile loaded.
    void OnAdded(const std::string& path);

    /// Stops and unloads the bundle of a directory that has gone. If an item is just being relaunched, the stop fails,
    /// and the handler asks the watcher for another try.
    void OnRemoved(const std::string& path);

    /// Updates a bundle and starts it again. A directory without a loaded bundle is raised again as added, because the
    /// change may have repaired it.
    void OnModified(const std::string& path);

    /// Marks the changes that a script has made in its bundle as seen by the watcher. A manifest that differs from the
    /// one in force is still raised as modified: the script has made it, or it came while the script ran. Any thread.
    /// Throws nothing: if memory is short, the only effect is a needless update.
    void AcceptWritesOfScript(const Bundle& bundle) noexcept;

private:
    std::shared_ptr<BundleManager> AwaitManager() const { return m_gateOpen.get(); }
    static std::shared_ptr<Bundle> FindLoaded(BundleManager& manager, const std::string& path);
    std::shared_ptr<Bundle> LoadAdded(BundleManager& manager, const std::string& path);
    static void StartAdded(BundleManager& manager, const std::shared_ptr<Bundle>& bundle);
    static void UpdateAndRestart(BundleManager& manager, const std::shared_ptr<Bundle>& bundle);
    void RetryRemoval(BundleManager& manager, const Bundle& bundle);
    void RetryRefusedAdditions();

    // A handler uses it after it has passed the gate.
    BundleDirWatcher* m_watcher = nullptr;
    std::promise<std::shared_ptr<BundleManager>> m_gate; // set on the main thread
    const std::shared_future<std::shared_ptr<BundleManager>> m_gateOpen = m_gate.get_future().share();
    // Used on the watcher's thread.
    std::set<std::string> m_unfinishedRemovals;  // paths of bundles that could not be stopped when they had gone
    std::vector<std::string> m_refusedMeanwhile; // paths of additions; a bundle that has gone may have had their names
};

} // namespace SystemServer

#endif
