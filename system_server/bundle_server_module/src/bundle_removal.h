#ifndef BUNDLE_REMOVAL_H
#define BUNDLE_REMOVAL_H

#include "bundle_dir_watcher.h"
#include "bundle_manager.h"
#include "directory_sync.h"

#include <memory>
#include <string>

namespace SystemServer {

/// Stops a bundle and unloads it. Any thread; waits for the manager and for "uninstall.sh". What fails is logged.
/// @return false when either fails: the bundle is still registered, unless another thread has unloaded it
/// @throws std::bad_alloc nothing has been done
bool StopAndUnload(BundleManager& manager, const std::shared_ptr<Bundle>& bundle);

/// Deletes bundles together with their directories, as a request asks. The main thread's.
class BundleRemoval {
public:
    /// @param watcher not owned; not told of the changes that a removal makes
    BundleRemoval(BundleDirWatcher& watcher, std::string collectionDir);

    /// Stops and unloads the bundle, removes its directory with "rm" and waits up to a second until the collection is
    /// written out: a power failure must not bring back what was answered as deleted. "rm" may take any time, and what
    /// it cannot remove stays.
    /// @return false when a step before the end of "rm" has failed; the log says which
    /// @throws std::bad_alloc
    bool Remove(BundleManager& manager, const std::shared_ptr<Bundle>& bundle);

private:
    static bool RemoveDirectory(const std::string& path, BundleDirWatcher::Withdrawal& withdrawal);

    BundleDirWatcher& m_watcher;
    DirectorySync m_collectionSync;
};

} // namespace SystemServer

#endif
