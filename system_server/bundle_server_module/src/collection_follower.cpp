#include "collection_follower.h"

#include "bundle_log.h"
#include "bundle_removal.h"
#include "file_type.h"

#include <chrono>
#include <exception>
#include <thread>
#include <utility>

namespace SystemServer {

void CollectionFollower::OpenGate(std::shared_ptr<BundleManager> manager)
{
    try {
        m_gate.set_value(std::move(manager));
    } catch (const std::future_error&) { // already open: the failure came after the start of the bundles
    }
}

void CollectionFollower::OnAdded(const std::string& path)
{
    BUNDLE_INFO("dir item add event happen.");
    if (!IsDirectory(path)) {
        return;
    }
    std::this_thread::sleep_for(std::chrono::seconds(1)); // a copy may still be going on
    const auto manager = AwaitManager();
    if (!manager) {
        return;
    }
    if (manager->IsLoaded(path)) {
        // It came while start-up read the collection, so start-up may have read it incomplete.
        BUNDLE_INFO("bundle dir[%s] is loaded already.", path.c_str());
        if (const std::shared_ptr<Bundle> loaded = FindLoaded(*manager, path)) {
            UpdateAndRestart(*manager, loaded);
        }
        return;
    }
    if (m_watcher->IsWithdrawn(path)) {
        BUNDLE_INFO("bundle dir[%s] is being deleted, it is not loaded.", path.c_str());
        return;
    }
    if (const std::shared_ptr<Bundle> bundle = LoadAdded(*manager, path)) {
        StartAdded(*manager, bundle);
    }
}

std::shared_ptr<Bundle> CollectionFollower::LoadAdded(BundleManager& manager, const std::string& path)
{
    try {
        BUNDLE_INFO("add a new bundle dir.");
        BUNDLE_INFO("load bundle from [%s]...", path.c_str());
        m_watcher->AcceptChanges(path); // changes since the event are loaded together with the rest
        std::shared_ptr<Bundle> bundle = manager.LoadBundle(path);
        if (!bundle) {
            BUNDLE_ERROR("load bundle from [%s] fail.", path.c_str());
            if (!m_unfinishedRemovals.empty()) {
                m_refusedMeanwhile.push_back(path);
            }
        }
        return bundle;
    } catch (const std::exception& e) {
        LogReason(e);
        BUNDLE_ERROR("failed to load bundle from [%s].", path.c_str());
        return nullptr;
    }
}

void CollectionFollower::StartAdded(BundleManager& manager, const std::shared_ptr<Bundle>& bundle)
{
    try {
        const std::string name = NameOf(*bundle);
        BUNDLE_INFO("load bundle[%s] done.", name.c_str());
        BUNDLE_INFO("resolve bundle[%s]...", name.c_str());
        manager.ResolveBundle(bundle);
        BUNDLE_INFO("resolve bundle done.");
        BUNDLE_INFO("start bundle[%s]...", name.c_str());
        manager.StartBundle(bundle);
        BUNDLE_INFO("start bundle done.");
    } catch (const std::exception&) {
        // The log shows the unloading as the response. The unloading can be refused, because a request may have removed
        // the bundle.
        try {
            manager.UnloadBundle(bundle);
        } catch (const std::exception& e) {
            BUNDLE_ERROR("failed bundle[%s] is not unloaded :%s", bundle->GetManifest()->GetBundleName().c_str(),
                         ReasonOf(e).c_str());
        }
    }
}

void CollectionFollower::OnRemoved(const std::string& path)
{
    BUNDLE_INFO("dir item remove event happen.");
    BUNDLE_INFO("remove a bundle dir.");
    const auto manager = AwaitManager();
    if (!manager) {
        return;
    }
    const std::shared_ptr<Bundle> bundle = FindLoaded(*manager, path);
    if (bundle && !StopAndUnload(*manager, bundle)) {
        RetryRemoval(*manager, *bundle);
    } else if (m_unfinishedRemovals.erase(path) != 0) {
        RetryRefusedAdditions();
    }
}

// A child cannot be killed during the second of its relaunch. All other causes of a failed stop are permanent.
void CollectionFollower::RetryRemoval(BundleManager& manager, const Bundle& bundle)
{
    const std::string& path = bundle.GetStorage()->GetRootPath();
    if (manager.IsLoaded(path) && bundle.GetCurState() == Bundle::BUNDLE_ACTIVE) {
        m_watcher->RetryRemoval(path);
        m_unfinishedRemovals.insert(path);
    }
}

// A renamed directory was refused while the bundle was still registered under its old path.
void CollectionFollower::RetryRefusedAdditions()
{
    for (const std::string& path : m_refusedMeanwhile) {
        m_watcher->RetryAdd(path);
    }
    m_refusedMeanwhile.clear();
}

void CollectionFollower::OnModified(const std::string& path)
{
    BUNDLE_INFO("dir item modified event happen.");
    BUNDLE_INFO("update a bundle dir.");
    const auto manager = AwaitManager();
    if (!manager) {
        return;
    }
    if (const std::shared_ptr<Bundle> bundle = FindLoaded(*manager, path)) {
        UpdateAndRestart(*manager, bundle);
    } else {
        m_watcher->RetryAdd(path);
    }
}

// Empty when it has no bundle. A record says which.
std::shared_ptr<Bundle> CollectionFollower::FindLoaded(BundleManager& manager, const std::string& path)
{
    BUNDLE_INFO("find bundle[%s]...", path.c_str());
    std::shared_ptr<Bundle> bundle = manager.FindBundleByPath(path);
    if (bundle) {
        BUNDLE_INFO("find bundle done.");
    } else {
        BUNDLE_ERROR("find bundle[%s] fail.", path.c_str());
    }
    return bundle;
}

// The update comes before the stop, so a manifest that does not parse leaves the old bundle running. Stopping only
// kills. The pause after it lets the monitor reap the dead children before new ones start.
void CollectionFollower::UpdateAndRestart(BundleManager& manager, const std::shared_ptr<Bundle>& bundle)
{
    try {
        bundle->Update();
        const std::string name = NameOf(*bundle);
        BUNDLE_INFO("stop bundle[%s]...", name.c_str());
        manager.StopBundle(bundle);
        BUNDLE_INFO("stop bundle done.");
        std::this_thread::sleep_for(std::chrono::seconds(1));
        BUNDLE_INFO("start bundle[%s]...", name.c_str());
        manager.StartBundle(bundle);
        BUNDLE_INFO("start bundle done.");
    } catch (const std::exception& e) {
        LogReason(e);
        BUNDLE_ERROR("update bundle[%s] failed.", bundle->GetManifest()->GetBundleName().c_str());
    }
}

// The manifest is compared last, so that an even later manifest counts as a normal change.
void CollectionFollower::AcceptWritesOfScript(const Bundle& bundle) noexcept
{
    const std::shared_ptr<BundleStorage> storage = bundle.GetStorage();
    const std::string& path = storage->GetRootPath();
    try {
        m_watcher->AcceptChanges(path);
        if (bundle.IsManifestOutdated() && !m_watcher->RaiseOnceMore(path)) {
            BUNDLE_INFO("manifest in [%s] has been changed by a script again, and is read after the next change.",
                        path.c_str());
        }
    } catch (const std::exception& e) {
        BUNDLE_ERROR("accept changes of [%s] fail. exception info: [%s].", path.c_str(), ReasonOf(e).c_str());
    }
}

} // namespace SystemServer
