#include "bundle_removal.h"

#include "bundle_log.h"
#include "group_leader.h"

#include <Poco/Exception.h>

#include <chrono>
#include <cstring>
#include <exception>
#include <utility>

namespace SystemServer {

namespace {

/// No client waits longer than this for a slow disk.
constexpr std::chrono::seconds SYNC_PATIENCE(1);

} // namespace

bool StopAndUnload(BundleManager& manager, const std::shared_ptr<Bundle>& bundle)
{
    const std::string name = NameOf(*bundle);
    try {
        BUNDLE_INFO("stop bundle[%s]...", name.c_str());
        manager.StopBundle(bundle);
        BUNDLE_INFO("stop bundle done.");
        BUNDLE_INFO("unload bundle[%s]...", name.c_str());
        manager.UnloadBundle(bundle);
        BUNDLE_INFO("unload bundle done.");
        return true;
    } catch (const std::exception& e) {
        LogReason(e);
        BUNDLE_ERROR("uninstalling bundle[%s] failed.", name.c_str());
        return false;
    }
}

BundleRemoval::BundleRemoval(BundleDirWatcher& watcher, std::string collectionDir)
    : m_watcher(watcher), m_collectionSync(std::move(collectionDir))
{}

// Withdrawn before it leaves the registry. When the watcher's thread does not find the bundle there, it then asks
// whether the bundle is being removed.
bool BundleRemoval::Remove(BundleManager& manager, const std::shared_ptr<Bundle>& bundle)
{
    {
        const std::string& path = bundle->GetStorage()->GetRootPath();
        BundleDirWatcher::Withdrawal withdrawal(m_watcher, path);
        if (!StopAndUnload(manager, bundle) || !RemoveDirectory(path, withdrawal)) {
            return false;
        }
    }
    m_collectionSync.Run(SYNC_PATIENCE);
    return true;
}

bool BundleRemoval::RemoveDirectory(const std::string& path, BundleDirWatcher::Withdrawal& withdrawal)
{
    try {
        const GroupLeader remover = LaunchInOwnGroup("rm", {"-rf", path});
        withdrawal.Begin();
        if (remover.groupError != 0) {
            BUNDLE_ERROR("setpgid %d to pgid %d failed errno %s ", remover.process.id(), 0,
                         std::strerror(remover.groupError));
        }
        remover.process.wait();
        BUNDLE_INFO("success to rm : [%s].", path.c_str());
        return true;
    } catch (const Poco::Exception& e) {
        BUNDLE_ERROR("remove cmd exception.exception info: [%s].", e.displayText().c_str());
        return false;
    }
}

} // namespace SystemServer
