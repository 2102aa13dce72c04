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

/// What the server does when bundles come, change and go. The three handlers run on the watcher's thread, one at a
/// time; each may take seconds. Start-up's walks over all bundles and a handler would get into each other's way, so the
/// handlers wait at a gate until start-up has started the collection. They throw only std::bad_alloc, which the watcher
/// logs.
class CollectionFollower {
public:
    /// Called once, before the gate is opened and before any script runs.
    /// @param watcher not owned. Its thread is joined before the follower is destroyed
    void SetWatcher(BundleDirWatcher& watcher) { m_watcher = &watcher; }

    /// Lets the handlers continue, with this manager from now on; without one they do nothing. Only the first call
    /// counts. The main thread.
    void OpenGate(std::shared_ptr<BundleManager> manager);

    /// Loads, resolves and starts the bundle of a directory a second later, when a copy of it may have ended. Passes
    /// over plain files and a directory that is being deleted. A bundle that start-up has loaded meanwhile is updated.
    void OnAdded(const std::string& path);

    /// Stops and unloads the bundle of a directory that has gone. Asks the watcher for another try when an item that is
    /// being run again keeps it from being stopped.
    void OnRemoved(const std::string& path);

    /// Updates a bundle and starts it again. A directory without a loaded bundle is offered again as added, because
    /// what could not be loaded, resolved or started may be mended now.
    void OnModified(const std::string& path);

    /// Marks what a script has written in its bundle as seen by the watcher. A manifest that differs from the one in
    /// force is still raised as modified: it has come while the script ran, or the script has made it. Any thread.
    /// Throws nothing: what the watcher does not learn because memory is short costs a needless update.
    void AcceptWritesOfScript(const Bundle& bundle) noexcept;

private:
    std::shared_ptr<BundleManager> AwaitManager() const { return m_gateOpen.get(); }
    static std::shared_ptr<Bundle> FindLoaded(BundleManager& manager, const std::string& path);
    std::shared_ptr<Bundle> LoadAdded(BundleManager& manager, const std::string& path);
    static void StartAdded(BundleManager& manager, const std::shared_ptr<Bundle>& bundle);
    static void UpdateAndRestart(BundleManager& manager, const std::shared_ptr<Bundle>& bundle);
    void RetryRemoval(BundleManager& manager, const Bundle& bundle);
    void RetryRefusedAdditions();

    // A handler uses it when it has passed the gate.
    BundleDirWatcher* m_watcher = nullptr;
    std::promise<std::shared_ptr<BundleManager>> m_gate; // the main thread's
    const std::shared_future<std::shared_ptr<BundleManager>> m_gateOpen = m_gate.get_future().share();
    // The watcher's thread's.
    std::set<std::string> m_unfinishedRemovals;  // paths of bundles that could not be stopped when they had gone
    std::vector<std::string> m_refusedMeanwhile; // paths of additions: what has gone may have held their names
};

} // namespace SystemServer

#endif
