#include "bundle_manager.h"

#include "bundle_activator_factory.h"
#include "bundle_log.h"
#include "file_type.h"
#include "waiting_bundles.h"

#include <Poco/DirectoryIterator.h>
#include <Poco/Exception.h>

#include <algorithm>
#include <cstddef>
#include <exception>
#include <utility>

namespace SystemServer {

namespace {

[[noreturn]] void Refuse(const char* before, const std::string& name, const char* after)
{
    throw Poco::InvalidArgumentException(before + name + after);
}

[[noreturn]] void RefuseCircle(const std::string& dependant, const std::string& required)
{
    throw Poco::InvalidArgumentException("bundle circular reference occur : <" + dependant + "," + required + ">.");
}

bool IsResolved(const Bundle& bundle)
{
    constexpr int resolvedStates =
        Bundle::BUNDLE_RESOLVED | Bundle::BUNDLE_STARTING | Bundle::BUNDLE_STOPPING | Bundle::BUNDLE_ACTIVE;
    return (bundle.GetCurState() & resolvedStates) != 0;
}

bool IsUnloadable(const Bundle& bundle)
{
    constexpr int runningStates = Bundle::BUNDLE_STARTING | Bundle::BUNDLE_STOPPING | Bundle::BUNDLE_ACTIVE;
    return (bundle.GetCurState() & runningStates) == 0;
}

/// The longest permitted chain of bundles that require each other. A longer one is a mistake or an attack.
constexpr std::size_t LONGEST_CHAIN = 10'000;

void RequireShortChain(const Bundle& bundle, DependencyChains& chains)
{
    if (bundle.GetManifest()->GetDependencies().empty()) {
        return;
    }
    const std::string name = NameOf(bundle);
    const std::size_t length = chains.LengthFrom(name);
    if (length > LONGEST_CHAIN) {
        throw Poco::InvalidArgumentException("bundle[" + name + "] begins a dependency chain of " +
                                             std::to_string(length) + " bundles, at most " +
                                             std::to_string(LONGEST_CHAIN) + " are allowed.");
    }
}

} // namespace

BundleFailProcessor::~BundleFailProcessor()
{
    for (const std::shared_ptr<Bundle>& bundle : m_failedBundles) {
        try {
            m_bundleManager->UnloadBundle(bundle);
        } catch (const std::exception& e) {
            BUNDLE_ERROR("failed bundle[%s] is not unloaded :%s", bundle->GetManifest()->GetBundleName().c_str(),
                         ReasonOf(e).c_str());
        }
    }
}

BundleManager::BundleManager(std::shared_ptr<BundleFactory> bundleFactory) : m_bundleFactory(std::move(bundleFactory))
{}

BundleManager::~BundleManager() = default;

// Visits the bundles in ascending name order, each under the lock. No lock or iterator is held between two bundles, so
// other threads and the visit itself may add and remove bundles.
template <class Visit> void BundleManager::ForEachBundle(const Visit& visit)
{
    std::string last;
    bool isFirst = true;
    for (;;) {
        const std::lock_guard<std::recursive_mutex> lock(m_mutex);
        const auto next = isFirst ? m_bundleInfoMap.begin() : m_bundleInfoMap.upper_bound(last);
        if (next == m_bundleInfoMap.end()) {
            return;
        }
        last = next->first;
        isFirst = false;
        visit(std::shared_ptr<Bundle>(next->second.pBundle));
    }
}

void BundleManager::LoadAllBundles(std::string& dir)
{
    for (Poco::DirectoryIterator entry(dir), end; entry != end; ++entry) {
        if (!IsDirectory(entry->path())) {
            continue;
        }
        const std::string& path = entry->path();
        try {
            BUNDLE_INFO("load bundle from %s...", path.c_str());
            LoadBundle(path);
            BUNDLE_INFO("load bundle done.");
        } catch (const Poco::Exception& e) {
            BUNDLE_ERROR("%s", ("failed to load bundles from " + path + ":" + e.displayText()).c_str());
        }
    }
}

std::shared_ptr<Bundle> BundleManager::LoadBundle(const std::string& path)
{
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    std::shared_ptr<Bundle> bundle = m_bundleFactory->CreateBundle(path);
    if (!bundle) {
        BUNDLE_ERROR("create bundle fail.");
        return nullptr;
    }
    bundle->RunScript("install.sh");
    const std::shared_ptr<BundleManifest> manifest = bundle->GetManifest();
    std::shared_ptr<BundleActivator> activator =
        BundleActivatorFactory::CreateBundleActivator(manifest->GetLoadMode(), bundle);
    if (!activator) {
        BUNDLE_ERROR("create bundle activator fail.");
        return nullptr;
    }
    const std::string& name = manifest->GetBundleName();
    if (!m_bundleInfoMap.try_emplace(name, BUNDLE_INFO_S{bundle, std::move(activator)}).second) {
        BUNDLE_ERROR("bundle[%s] already exists.", name.c_str());
        return nullptr;
    }
    BUNDLE_INFO("load bundle[%s] success.", name.c_str());
    return bundle;
}

void BundleManager::UnloadBundle(std::shared_ptr<Bundle> bundle)
{
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const std::string name = NameOf(*bundle);
    if (!IsUnloadable(*bundle)) {
        Refuse("bundle[", name, "] already start can not be unloaded.");
    }
    if (m_bundleInfoMap.find(name) == m_bundleInfoMap.end()) {
        Refuse("bundle[", name, "] not found.");
    }
    bundle->RunScript("uninstall.sh");
    m_bundleInfoMap.erase(name);
}

void BundleManager::UnloadAllBundles()
{
    ForEachBundle([this](const std::shared_ptr<Bundle>& bundle) {
        if (bundle->GetCurState() == Bundle::BUNDLE_ACTIVE) {
            StopBundle(bundle);
        }
        UnloadBundle(bundle);
    });
}

std::shared_ptr<Bundle> BundleManager::FindBundleByName(const std::string& name)
{
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const auto entry = m_bundleInfoMap.find(name);
    if (entry == m_bundleInfoMap.end()) {
        BUNDLE_ERROR("bundle [%s] not found.", name.c_str());
        return nullptr;
    }
    return entry->second.pBundle;
}

std::shared_ptr<Bundle> BundleManager::FindBundleByPath(const std::string& path)
{
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    std::shared_ptr<Bundle> bundle = BundleAt(path);
    if (!bundle) {
        BUNDLE_ERROR("bundle with storage path[%s] not found.", path.c_str());
    }
    return bundle;
}

bool BundleManager::IsLoaded(const std::string& path)
{
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    return BundleAt(path) != nullptr;
}

// With m_mutex held; empty when there is none.
std::shared_ptr<Bundle> BundleManager::BundleAt(const std::string& path) const
{
    const auto entry = std::find_if(m_bundleInfoMap.begin(), m_bundleInfoMap.end(), [&path](const auto& candidate) {
        return candidate.second.pBundle->GetStorage()->GetRootPath() == path;
    });
    return entry == m_bundleInfoMap.end() ? nullptr : entry->second.pBundle;
}

std::shared_ptr<Bundle> BundleManager::RequiredBundle(const std::string& name) const
{
    const auto entry = m_bundleInfoMap.find(name);
    if (entry == m_bundleInfoMap.end()) {
        Refuse("required bundle :[", name, "] not found.");
    }
    return entry->second.pBundle;
}

void BundleManager::ResolveAllBundles()
{
    BundleFailProcessor failProcessor(this);
    DependencyChains chains = Chains();
    ForEachBundle([this, &failProcessor, &chains](const std::shared_ptr<Bundle>& bundle) {
        if (IsResolved(*bundle)) {
            return;
        }
        const std::string name = NameOf(*bundle);
        try {
            BUNDLE_INFO("resolve bundle[%s]...", name.c_str());
            Resolve(bundle, chains);
            BUNDLE_INFO("resolve bundle done.");
        } catch (const Poco::Exception& e) {
            BUNDLE_ERROR("%s", ("failed to resolve bundle[" + name + "] :" + e.displayText()).c_str());
            failProcessor.m_failedBundles.push_back(bundle);
        }
    });
}

void BundleManager::ResolveBundle(std::shared_ptr<Bundle> bundle)
{
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    DependencyChains chains = Chains();
    Resolve(bundle, chains);
}

void BundleManager::Resolve(const std::shared_ptr<Bundle>& bundle, DependencyChains& chains)
{
    if (IsResolved(*bundle)) {
        Refuse("bundle[", NameOf(*bundle), "] already resolved can not be resolved twice.");
    }
    RequireShortChain(*bundle, chains);
    WaitingBundles<ResolvingMark> waiting;
    for (std::shared_ptr<Bundle> next = bundle; next; next = ResolveBundleDependencies(waiting)) {
        waiting.Push(next, m_resolvingBundleSet, next);
        BUNDLE_INFO("resolve bundle[%s] dependencies...", NameOf(*next).c_str());
    }
}

// Resolves the bundles from the last to the first. Stops at a bundle that requires an unresolved bundle, and returns
// that required bundle. Null when all are resolved.
std::shared_ptr<Bundle> BundleManager::ResolveBundleDependencies(WaitingBundles<ResolvingMark>& waiting)
{
    for (;;) {
        WaitingBundle<ResolvingMark>& last = waiting.Last();
        while (const std::string* const name = last.NextRequired()) {
            std::shared_ptr<Bundle> required = RequiredBundle(*name);
            if (IsResolved(*required)) {
                continue;
            }
            if (IsResolving(required)) {
                RefuseCircle(NameOf(*last.bundle), *name);
            }
            BUNDLE_INFO("resolve bundle[%s]...", name->c_str());
            return required;
        }
        BUNDLE_INFO("resolve bundle dependencies done.");
        last.bundle->SetCurState(Bundle::BUNDLE_RESOLVED);
        waiting.Pop();
        if (waiting.IsEmpty()) {
            return nullptr;
        }
        BUNDLE_INFO("resolve bundle done.");
    }
}

DependencyChains BundleManager::Chains() const
{
    return DependencyChains([this](const std::string& name) -> DependencyChains::Dependencies {
        const auto entry = m_bundleInfoMap.find(name);
        if (entry == m_bundleInfoMap.end()) {
            return nullptr;
        }
        const std::shared_ptr<BundleManifest> manifest = entry->second.pBundle->GetManifest();
        return {manifest, &manifest->GetDependencies()};
    });
}

bool BundleManager::IsResolving(std::shared_ptr<Bundle> bundle) const
{
    return m_resolvingBundleSet.find(bundle) != m_resolvingBundleSet.end();
}

void BundleManager::StartAllBundles()
{
    BundleFailProcessor failProcessor(this);
    ForEachBundle([this, &failProcessor](const std::shared_ptr<Bundle>& bundle) {
        if (bundle->GetCurState() != Bundle::BUNDLE_RESOLVED) {
            return;
        }
        const std::string name = NameOf(*bundle);
        try {
            BUNDLE_INFO("start bundle[%s]...", name.c_str());
            StartBundle(bundle);
            BUNDLE_INFO("start bundle done.");
        } catch (const Poco::Exception& e) {
            BUNDLE_ERROR("%s", ("failed to start bundle[" + name + "] :" + e.displayText()).c_str());
            failProcessor.m_failedBundles.push_back(bundle);
        }
    });
}

void BundleManager::StartBundle(std::shared_ptr<Bundle> bundle)
{
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    WaitingBundles<StateRollback> waiting;
    for (std::shared_ptr<Bundle> next = std::move(bundle); next; next = StartBundleDependencies(waiting)) {
        const std::string name = NameOf(*next);
        if (next->GetCurState() != Bundle::BUNDLE_RESOLVED) {
            Refuse("bundle[", name, "] not in resolved state can not be starting.");
        }
        waiting.Push(next, *next, Bundle::BUNDLE_STARTING, Bundle::BUNDLE_RESOLVED);
        BUNDLE_INFO("start bundle[%s] dependencies...", name.c_str());
    }
}

// Starts the bundles from the last to the first. Stops at a bundle that requires a bundle which does not run yet, and
// returns that required bundle. Null when all run.
std::shared_ptr<Bundle> BundleManager::StartBundleDependencies(WaitingBundles<StateRollback>& waiting)
{
    for (;;) {
        WaitingBundle<StateRollback>& last = waiting.Last();
        while (const std::string* const name = last.NextRequired()) {
            std::shared_ptr<Bundle> required = RequiredBundle(*name);
            if (required->GetCurState() == Bundle::BUNDLE_ACTIVE) {
                continue;
            }
            BUNDLE_INFO("start bundle[%s]...", name->c_str());
            return required;
        }
        BUNDLE_INFO("start bundle dependencies done.");
        StartActivator(*last.bundle);
        last.bundle->SetCurState(Bundle::BUNDLE_ACTIVE);
        last.undo.Dismiss();
        waiting.Pop();
        if (waiting.IsEmpty()) {
            return nullptr;
        }
        BUNDLE_INFO("start bundle done.");
    }
}

void BundleManager::StartActivator(const Bundle& bundle) const
{
    const std::string name = NameOf(bundle);
    const std::shared_ptr<BundleActivator> activator = ActivatorOf(name);
    BUNDLE_INFO("start bundle[%s] activator...", name.c_str());
    activator->Start();
    BUNDLE_INFO("start bundle[%s] activator done.", name.c_str());
}

std::shared_ptr<BundleActivator> BundleManager::ActivatorOf(const std::string& name) const
{
    const auto entry = m_bundleInfoMap.find(name);
    if (entry == m_bundleInfoMap.end()) {
        Refuse("bundle [", name, "] not found.");
    }
    return entry->second.pActivator;
}

void BundleManager::StopBundle(std::shared_ptr<Bundle> bundle)
{
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const std::string name = NameOf(*bundle);
    if (bundle->GetCurState() != Bundle::BUNDLE_ACTIVE) {
        Refuse("bundle [", name, "] not in active state can not be stopping.");
    }
    StateRollback rollback(*bundle, Bundle::BUNDLE_STOPPING, Bundle::BUNDLE_ACTIVE);
    const std::shared_ptr<BundleActivator> activator = ActivatorOf(name);
    BUNDLE_INFO("stop bundle[%s] activator...", name.c_str());
    activator->Stop();
    BUNDLE_INFO("stop bundle[%s] activator Done.", name.c_str());
    bundle->SetCurState(Bundle::BUNDLE_RESOLVED);
    rollback.Dismiss();
}

void BundleManager::StopAllBundles()
{
    ForEachBundle([this](const std::shared_ptr<Bundle>& bundle) {
        if (bundle->GetCurState() == Bundle::BUNDLE_ACTIVE) {
            StopBundle(bundle);
        }
    });
}

} // namespace SystemServer
