#ifndef BUNDLECTL_AUTHOR_PLAN_FACTORY_H
#define BUNDLECTL_AUTHOR_PLAN_FACTORY_H

#include <bundle_factory.h>

#include <map>
#include <memory>
#include <string>

namespace Plans {

/// Makes bundles for the server's manager that do what a plan needs and no more: no script is found, and a start
/// launches and loads nothing, but refuses what it would refuse.
class PlanFactory : public SystemServer::BundleFactory {
public:
    std::shared_ptr<SystemServer::Bundle> CreateBundle(const std::string& path) override;

    /// From now on the files of a directory are those of another one.
    void Replace(const std::string& path, const std::string& by) { (*m_sources)[path] = by; }
    /// Where the files of a directory are.
    std::string SourceOf(const std::string& path) const;

    struct Known {
        std::string path;
        int items = 0; ///< that are launched as processes
    };
    /// What has been made, by the bundle's name; the first counts.
    const std::map<std::string, Known>& Bundles() const { return *m_known; }

private:
    using Sources = std::map<std::string, std::string>;
    using KnownBundles = std::map<std::string, Known>;

    const std::shared_ptr<Sources> m_sources = std::make_shared<Sources>(); // shared with the bundles
    const std::shared_ptr<KnownBundles> m_known = std::make_shared<KnownBundles>();

    class Files;
};

} // namespace Plans

#endif
