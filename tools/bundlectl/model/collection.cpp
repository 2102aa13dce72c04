#include "collection.h"

#include "files.h"
#include "manifest_line.h"
#include "printable.h"
#include "quiet_log.h"

#include <bundle_factory.h>
#include <bundle_manager.h>
#include <file_type.h>
#include <item_kind.h>

#include <Poco/DirectoryIterator.h>
#include <Poco/Exception.h>
#include <Poco/Path.h>

#include <sys/stat.h>

#include <algorithm>
#include <istream>
#include <memory>
#include <set>
#include <utility>

namespace Model {

namespace {

using SystemServer::Bundle;
using SystemServer::BundleManager;
using SystemServer::BundleManifest;
using SystemServer::BundleStorageDir;

/// A bundle's files, under an impossible root path: it begins with a NUL. So the manager never finds a script to run.
class FilesWithoutScripts : public SystemServer::BundleStorage {
public:
    explicit FilesWithoutScripts(const std::string& path) : BundleStorage(std::string(1, '\0') + path), m_files(path) {}

    std::istream* GetResourceFile(const std::string& relativePath) const override
    {
        return m_files.GetResourceFile(relativePath);
    }

private:
    const BundleStorageDir m_files;
};

/// Makes bundles that cannot be run. Remembers the last one, because the manager does not return bundles that it
/// refuses.
class Factory : public SystemServer::BundleFactory {
public:
    std::shared_ptr<Bundle> CreateBundle(const std::string& path) override
    {
        m_last.reset();
        m_last = std::make_shared<Bundle>(std::make_shared<FilesWithoutScripts>(path));
        return m_last;
    }

    const std::shared_ptr<Bundle>& Last() const { return m_last; }

private:
    std::shared_ptr<Bundle> m_last;
};

/// Loads the directories one after the other, like the server at its start.
class Reader {
public:
    explicit Reader(Collection& collection) : m_collection(collection) {}

    void Load(DeclaredBundle& bundle);
    void Resolve();

private:
    void TakeManifest(const BundleManifest& manifest, DeclaredBundle& bundle);
    static void Refuse(DeclaredBundle& bundle, Verdict verdict, const std::string& reason);
    bool FindObstacle(const std::string& name, std::vector<std::string>& chain, Verdict& verdict);
    void FindStartObstacles();

    Collection& m_collection;
    const std::shared_ptr<Factory> m_factory = std::make_shared<Factory>();
    BundleManager m_manager{m_factory};
    std::map<std::string, std::size_t> m_taken; // bundles by name, in name order, as the server walks over them
    std::map<std::string, std::shared_ptr<Bundle>> m_loaded;
    std::set<std::string> m_clear; // bundles that are known to resolve
};

void Reader::Load(DeclaredBundle& bundle)
{
    try {
        TakeServerError();
        const std::shared_ptr<Bundle> loaded = m_manager.LoadBundle(bundle.path);
        TakeManifest(*m_factory->Last()->GetManifest(), bundle);
        if (loaded) {
            const auto index = static_cast<std::size_t>(&bundle - m_collection.bundles.data());
            m_taken.emplace(bundle.name, index);
            m_loaded.emplace(bundle.name, loaded);
            return;
        }
        const auto taken = m_taken.find(bundle.name);
        Refuse(bundle, taken == m_taken.end() ? Verdict::MODE_REFUSED : Verdict::DUPLICATE, TakeServerError());
        if (bundle.verdict == Verdict::DUPLICATE) {
            bundle.otherPath = m_collection.bundles[taken->second].path;
        }
    } catch (const Poco::FileNotFoundException& e) {
        Refuse(bundle, Verdict::NO_MANIFEST, e.displayText());
    } catch (const Poco::Exception& e) {
        Refuse(bundle, Verdict::MANIFEST_BROKEN, e.displayText());
        bundle.manifestLine = LineOfFault(bundle.path + "/" + Bundle::BUNDLE_MANIFEST_FILE, e.displayText());
    } catch (const std::out_of_range& e) {
        Refuse(bundle, Verdict::ENDS_START_UP, e.what());
        bundle.manifestLine = LineOfFault(bundle.path + "/" + Bundle::BUNDLE_MANIFEST_FILE, e.what());
    }
}

void Reader::Refuse(DeclaredBundle& bundle, Verdict verdict, const std::string& reason)
{
    bundle.verdict = verdict;
    bundle.reason = Printable(reason);
}

void Reader::TakeManifest(const BundleManifest& manifest, DeclaredBundle& bundle)
{
    bundle.name = Printable(manifest.GetBundleName());
    bundle.mode = static_cast<int>(manifest.GetLoadMode());
    for (const std::string& name : manifest.GetDependencies()) {
        bundle.required.push_back(Printable(name));
    }
    for (const BundleManifest::LoadItem& item : manifest.GetLoadItems()) {
        const std::string file = bundle.path + "/bin/" + item.itemName;
        bundle.items.push_back({Printable(item.itemName), Printable(item.entryFunc), file});
    }
}

void Reader::Resolve()
{
    for (const auto& [name, index] : m_taken) {
        const std::shared_ptr<Bundle>& loaded = m_loaded.at(name);
        if (loaded->GetCurState() != Bundle::BUNDLE_INSTALLED) {
            continue; // already resolved with a bundle that requires it
        }
        try {
            m_manager.ResolveBundle(loaded);
        } catch (const Poco::Exception& e) {
            DeclaredBundle& bundle = m_collection.bundles[index];
            Verdict verdict = Verdict::REQUIRED_MISSING;
            FindObstacle(name, bundle.chain, verdict);
            Refuse(bundle, verdict, e.displayText());
        }
    }
    FindStartObstacles();
}

// The path on which the manager has found it: depth first, in the order of the manifests.
bool Reader::FindObstacle(const std::string& name, std::vector<std::string>& chain, Verdict& verdict)
{
    const bool isRepeated = std::find(chain.begin(), chain.end(), name) != chain.end();
    const auto taken = m_taken.find(name);
    if (m_clear.count(name) != 0) {
        return false;
    }
    chain.push_back(name);
    if (isRepeated || taken == m_taken.end()) {
        verdict = isRepeated ? Verdict::CIRCLE : Verdict::REQUIRED_MISSING;
        return true;
    }
    for (const std::string& required : m_collection.bundles[taken->second].required) {
        if (FindObstacle(required, chain, verdict)) {
            return true;
        }
    }
    chain.pop_back();
    m_clear.insert(name);
    return false;
}

// A bundle that resolves may still fail to start. Then the bundles that require it do not start either.
void Reader::FindStartObstacles()
{
    const auto starts = [this](const std::string& name) {
        const auto taken = m_taken.find(name);
        return taken != m_taken.end() && m_collection.bundles[taken->second].verdict == Verdict::STARTS;
    };
    for (const auto& [name, index] : m_taken) {
        DeclaredBundle& bundle = m_collection.bundles[index];
        const auto isNoLibrary = [](const DeclaredItem& item) {
            return SystemServer::KindOf(item.name) != SystemServer::ItemKind::LIBRARY;
        };
        if (bundle.verdict == Verdict::STARTS && bundle.mode == BundleManifest::THREAD_LOAD_MODE &&
            std::any_of(bundle.items.begin(), bundle.items.end(), isNoLibrary)) {
            Refuse(bundle, Verdict::NO_LIBRARY, "Invalid argument: item[%s] can not be loaded in thread mode.");
        }
    }
    for (bool isChanged = true; isChanged;) {
        isChanged = false;
        for (const auto& [name, index] : m_taken) {
            DeclaredBundle& bundle = m_collection.bundles[index];
            const auto failing = std::find_if_not(bundle.required.begin(), bundle.required.end(), starts);
            if (bundle.verdict == Verdict::STARTS && failing != bundle.required.end()) {
                const DeclaredBundle& required = m_collection.bundles[m_taken.at(*failing)];
                Refuse(bundle, Verdict::REQUIRED_FAILS, required.reason);
                bundle.chain = {name, *failing};
                isChanged = true;
            }
        }
    }
}

} // namespace

std::vector<const DeclaredBundle*> Collection::Find(const std::string& name) const
{
    std::vector<const DeclaredBundle*> found;
    for (const DeclaredBundle& bundle : bundles) {
        if (bundle.name == name && !name.empty()) {
            found.push_back(&bundle);
        }
    }
    return found;
}

const DeclaredBundle* Collection::FindByPath(const std::string& bundlePath) const
{
    const auto found = std::find_if(bundles.begin(), bundles.end(), [&bundlePath](const DeclaredBundle& bundle) {
        return bundle.path == bundlePath || bundle.loggedPath == bundlePath;
    });
    return found == bundles.end() ? nullptr : &*found;
}

Collection ReadCollection(const std::string& configured, const std::string& base)
{
    Collection collection;
    collection.path = AbsolutePath(base, configured);
    const std::string prefix = Poco::Path(configured).makeDirectory().toString();
    try {
        // The same loop as the server's, so that the order is the same.
        for (Poco::DirectoryIterator entry(collection.path), end; entry != end; ++entry) {
            if (SystemServer::IsDirectory(entry->path())) {
                DeclaredBundle bundle;
                bundle.path = entry->path();
                bundle.loggedPath = Printable(prefix + entry.name());
                collection.bundles.push_back(std::move(bundle));
            }
        }
    } catch (const Poco::Exception& e) {
        collection.trouble = Printable(e.displayText());
        return collection;
    }
    Reader reader(collection);
    for (DeclaredBundle& bundle : collection.bundles) {
        reader.Load(bundle);
        bundle.changed = LastChangeOf(bundle.path);
    }
    reader.Resolve();
    return collection;
}

Time LastChangeOf(const std::string& bundlePath)
{
    Time latest;
    for (const char* part : {"", "/BundleManifest.ini", "/bin", "/script"}) {
        struct stat status {};
        if (::stat((bundlePath + part).c_str(), &status) == 0) {
            latest = std::max(latest, Time(std::chrono::seconds(status.st_ctim.tv_sec) +
                                           Microseconds(status.st_ctim.tv_nsec / 1000)));
        }
    }
    return latest;
}

} // namespace Model
