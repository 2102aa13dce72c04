#ifndef TESTS_SUPPORT_IN_MEMORY_FACTORY_H
#define TESTS_SUPPORT_IN_MEMORY_FACTORY_H

#include "bundle_factory.h"

#include <functional>
#include <istream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <utility>

/// Makes bundles whose manifest is a text in memory. Tests use it for thousands of bundles, and for faults that real
/// directories cannot have. A path without a text gives no bundle.
class InMemoryFactory : public SystemServer::BundleFactory {
public:
    void Put(const std::string& path, const std::string& manifest)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_manifests[path] = manifest;
    }

    /// A bundle under the path of its name, without items.
    void PutBundle(const std::string& name, const std::string& required = "", const std::string& more = "")
    {
        Put(name, "[global]\nbundle_name = " + name + "\nbundle_load_mode = 0\nbundle_dependencies = " + required +
                      "\n" + more);
    }

    /// The paths of all bundles.
    std::set<std::string> Paths() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        std::set<std::string> paths;
        for (const auto& [path, manifest] : m_manifests) {
            paths.insert(path);
        }
        return paths;
    }

    /// Sets an action that runs before the bundle at that path is made.
    void Before(const std::string& path, std::function<void()> action) { m_actions[path] = std::move(action); }

    std::shared_ptr<SystemServer::Bundle> CreateBundle(const std::string& path) override
    {
        const auto action = m_actions.find(path);
        if (action != m_actions.end()) {
            action->second();
        }
        return Find(path).empty() ? nullptr
                                  : std::make_shared<SystemServer::Bundle>(std::make_shared<Storage>(*this, path));
    }

private:
    class Storage : public SystemServer::BundleStorage {
    public:
        Storage(const InMemoryFactory& factory, const std::string& path) : BundleStorage(path), m_factory(factory) {}
        std::istream* GetResourceFile(const std::string& /*relativePath*/) const override
        {
            return std::make_unique<std::istringstream>(m_factory.Find(GetRootPath())).release();
        }

    private:
        const InMemoryFactory& m_factory;
    };

    std::string Find(const std::string& path) const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto manifest = m_manifests.find(path);
        return manifest == m_manifests.end() ? "" : manifest->second;
    }

    mutable std::mutex m_mutex;
    std::map<std::string, std::string> m_manifests;
    std::map<std::string, std::function<void()>> m_actions;
};

#endif
