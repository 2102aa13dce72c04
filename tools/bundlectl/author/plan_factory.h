#ifndef BUNDLECTL_AUTHOR_PLAN_FACTORY_H
#define BUNDLECTL_AUTHOR_PLAN_FACTORY_H

#include <bundle_factory.h>

#include <map>
#include <memory>
#include <string>

namespace Plans {

/// Makes bundles for the server's manager that do only what a plan needs. They have no scripts. A start launches and
/// loads nothing, but fails where a real start would fail.
class PlanFactory : public SystemServer::BundleFactory {
public:
    std::shared_ptr<SystemServer::Bundle> CreateBundle(const std::string& path) override;

    /// From now on, a directory's files are read from another directory.
    void Replace(const std::string& path, const std::string& by) { (*m_sources)[path] = by; }
    /// The directory from which a directory's files are read.
    std::string SourceOf(const std::string& path) const;

    struct Known {
        std::string path;
        int items = 0; ///< number of items that are launched as processes
    };
    /// The bundles that have been made, by name. The first of a name counts.
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
