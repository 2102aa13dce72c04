#ifndef BUNDLE_REMOVAL_H
#define BUNDLE_REMOVAL_H

#include "bundle_dir_watcher.h"
#include "bundle_manager.h"
#include "directory_sync.h"

#include <memory>
#include <string>

namespace SystemServer {

/// Stops a bundle and unloads it. Any thread; waits for the manager and for "uninstall.sh". Failures are logged.
/// @return false when either fails: the bundle is still registered, unless another thread has unloaded it
/// @throws std::bad_alloc nothing has been done
bool StopAndUnload(BundleManager& manager, const std::shared_ptr<Bundle>& bundle);

/// Carries out requests to delete bundles together with their directories. Used on the main thread.
class BundleRemoval {
public:
    /// @param watcher not owned; does not raise the changes that a removal makes
    BundleRemoval(BundleDirWatcher& watcher, std::string collectionDir);

    /// Stops and unloads the bundle, and removes its directory with "rm". Then waits up to a second until the
    /// collection is written to disk, so that a power failure does not bring a deleted bundle back. "rm" may take any
    /// time. Files that it cannot remove stay.
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
