#include "plan_factory.h"

#include <bundle.h>
#include <bundle_manifest.h>
#include <bundle_storage_dir.h>
#include <item_kind.h>

#include <istream>
#include <sstream>

namespace Plans {

namespace {

using SystemServer::BundleManifest;

/// A manifest of the same bundle that keeps only the item at which a start in thread mode fails.
std::string WithoutItems(const BundleManifest& manifest)
{
    std::string text = "[global]\nbundle_name=" + manifest.GetBundleName() +
                       "\nbundle_load_mode=" + std::to_string(static_cast<int>(manifest.GetLoadMode())) +
                       "\nbundle_dependencies=";
    for (const std::string& name : manifest.GetDependencies()) {
        text += name + ",";
    }
    for (const BundleManifest::LoadItem& item : manifest.GetLoadItems()) {
        if (manifest.GetLoadMode() == BundleManifest::THREAD_LOAD_MODE &&
            SystemServer::KindOf(item.itemName) != SystemServer::ItemKind::LIBRARY) {
            return text + "\n[item]\nitem_name=" + item.itemName + "\n";
        }
    }
    return text + "\n";
}

} // namespace

/// A bundle's files, under an impossible root path: it begins with a NUL. So no script is found.
class PlanFactory::Files : public SystemServer::BundleStorage {
public:
    Files(const std::string& path, std::shared_ptr<Sources> sources, std::shared_ptr<KnownBundles> known)
        : BundleStorage(std::string(1, '\0') + path), m_path(path), m_sources(std::move(sources)),
          m_known(std::move(known))
    {}

    std::istream* GetResourceFile(const std::string& relativePath) const override
    {
        const auto source = m_sources->find(m_path);
        const SystemServer::BundleStorageDir files(source == m_sources->end() ? m_path : source->second);
        const std::unique_ptr<std::istream> stream(files.GetResourceFile(relativePath));
        if (!stream) {
            return nullptr;
        }
        const BundleManifest manifest(*stream);
        Known known{m_path, 0};
        if (manifest.GetLoadMode() == BundleManifest::PROCESS_LOAD_MODE) {
            known.items = static_cast<int>(manifest.GetLoadItems().size());
        }
        const auto entry = m_known->emplace(manifest.GetBundleName(), known).first;
        if (entry->second.path == m_path) {
            entry->second = known;
        }
        return std::make_unique<std::istringstream>(WithoutItems(manifest)).release();
    }

private:
    const std::string m_path;
    const std::shared_ptr<Sources> m_sources;
    const std::shared_ptr<KnownBundles> m_known;
};

std::shared_ptr<SystemServer::Bundle> PlanFactory::CreateBundle(const std::string& path)
{
    return std::make_shared<SystemServer::Bundle>(std::make_shared<Files>(path, m_sources, m_known));
}

std::string PlanFactory::SourceOf(const std::string& path) const
{
    const auto source = m_sources->find(path);
    return source == m_sources->end() ? path : source->second;
}

} // namespace Plans
