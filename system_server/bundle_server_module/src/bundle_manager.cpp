#include "bundle_manager.h"

#include "bundle_activator_factory.h"
#include "bundle_log.h"
#include "directory.h"

#include <Poco/DirectoryIterator.h>
#include <Poco/Exception.h>

#include <algorithm>
#include <exception>
#include <utility>

namespace SystemServer {

namespace {

// Texts are put together out of line: the operations that refuse recurse along the dependencies, and a long chain of
// bundles must fit the stack.
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

/// Puts a bundle back into a state when an operation leaves by an exception.
class StateRollback {
public:
    StateRollback(Bundle& bundle, Bundle::BUNDLE_STATE_E state) : m_bundle(bundle), m_state(state) {}
    ~StateRollback()
    {
        if (!m_dismissed) {
            m_bundle.SetCurState(m_state);
        }
    }
    StateRollback(const StateRollback&) = delete;
    StateRollback& operator=(const StateRollback&) = delete;

    void Dismiss() { m_dismissed = true; }

private:
    Bundle& m_bundle;
    const Bundle::BUNDLE_STATE_E m_state;
    bool m_dismissed = false;
};

/// Keeps a bundle in the set of those being resolved.
class ResolvingMark {
public:
    using Set = std::set<std::shared_ptr<Bundle>>;

    ResolvingMark(Set& resolving, const std::shared_ptr<Bundle>& bundle)
        : m_resolving(resolving), m_position(resolving.insert(bundle).first)
    {}
    ~ResolvingMark() { m_resolving.erase(m_position); }
    ResolvingMark(const ResolvingMark&) = delete;
    ResolvingMark& operator=(const ResolvingMark&) = delete;

private:
    Set& m_resolving;
    const Set::iterator m_position;
};

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

// Visits the bundles in ascending name order, each under the lock. Nothing is held from one to the next, so bundles
// that come and go meanwhile, by other threads or by the visit itself, do no harm.
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
        if (!IsDirectory(*entry)) {
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
    const auto entry = std::find_if(m_bundleInfoMap.begin(), m_bundleInfoMap.end(), [&path](const auto& candidate) {
        return candidate.second.pBundle->GetStorage()->GetRootPath() == path;
    });
    if (entry == m_bundleInfoMap.end()) {
        BUNDLE_ERROR("bundle with storage path[%s] not found.", path.c_str());
        return nullptr;
    }
    return entry->second.pBundle;
}

std::set<std::string> BundleManager::LoadedPaths()
{
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    std::set<std::string> paths;
    for (const auto& entry : m_bundleInfoMap) {
        paths.insert(entry.second.pBundle->GetStorage()->GetRootPath());
    }
    return paths;
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
    ForEachBundle([this, &failProcessor](const std::shared_ptr<Bundle>& bundle) {
        if (IsResolved(*bundle)) {
            return;
        }
        const std::string name = NameOf(*bundle);
        try {
            BUNDLE_INFO("resolve bundle[%s]...", name.c_str());
            ResolveBundle(bundle);
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
    if (IsResolved(*bundle)) {
        Refuse("bundle[", NameOf(*bundle), "] already resolved can not be resolved twice.");
    }
    {
        const ResolvingMark resolving(m_resolvingBundleSet, bundle);
        BUNDLE_INFO("resolve bundle[%s] dependencies...", NameOf(*bundle).c_str());
        ResolveBundleDependencies(bundle);
        BUNDLE_INFO("resolve bundle dependencies done.");
    }
    bundle->SetCurState(Bundle::BUNDLE_RESOLVED);
}

void BundleManager::ResolveBundleDependencies(std::shared_ptr<Bundle> bundle)
{
    const std::shared_ptr<BundleManifest> manifest = bundle->GetManifest();
    for (const std::string& name : manifest->GetDependencies()) {
        const std::shared_ptr<Bundle> required = RequiredBundle(name);
        if (IsResolved(*required)) {
            continue;
        }
        if (IsResolving(required)) {
            RefuseCircle(manifest->GetBundleName(), name);
        }
        BUNDLE_INFO("resolve bundle[%s]...", name.c_str());
        ResolveBundle(required);
        BUNDLE_INFO("resolve bundle done.");
    }
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
    const std::string name = NameOf(*bundle);
    if (bundle->GetCurState() != Bundle::BUNDLE_RESOLVED) {
        Refuse("bundle[", name, "] not in resolved state can not be starting.");
    }
    bundle->SetCurState(Bundle::BUNDLE_STARTING);
    StateRollback rollback(*bundle, Bundle::BUNDLE_RESOLVED);
    BUNDLE_INFO("start bundle[%s] dependencies...", name.c_str());
    StartBundleDependencies(bundle);
    BUNDLE_INFO("start bundle dependencies done.");
    const std::shared_ptr<BundleActivator> activator = ActivatorOf(name);
    BUNDLE_INFO("start bundle[%s] activator...", name.c_str());
    activator->Start();
    BUNDLE_INFO("start bundle[%s] activator done.", name.c_str());
    bundle->SetCurState(Bundle::BUNDLE_ACTIVE);
    rollback.Dismiss();
}

void BundleManager::StartBundleDependencies(std::shared_ptr<Bundle> bundle)
{
    const std::shared_ptr<BundleManifest> manifest = bundle->GetManifest();
    for (const std::string& name : manifest->GetDependencies()) {
        const std::shared_ptr<Bundle> required = RequiredBundle(name);
        if (required->GetCurState() == Bundle::BUNDLE_ACTIVE) {
            continue;
        }
        BUNDLE_INFO("start bundle[%s]...", name.c_str());
        StartBundle(required);
        BUNDLE_INFO("start bundle done.");
    }
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
    bundle->SetCurState(Bundle::BUNDLE_STOPPING);
    StateRollback rollback(*bundle, Bundle::BUNDLE_ACTIVE);
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
