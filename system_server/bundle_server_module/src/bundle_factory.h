#ifndef BUNDLE_FACTORY_H
#define BUNDLE_FACTORY_H

#include "bundle.h"

#include <memory>
#include <string>

namespace SystemServer {

/// Makes bundles. Immutable, so any thread may use it.
class BundleFactory {
public:
    BundleFactory() = default;
    virtual ~BundleFactory();
    BundleFactory(const BundleFactory&) = delete;
    BundleFactory& operator=(const BundleFactory&) = delete;

    /// @return the bundle in the Installed state; empty when the path has no bundle, the log says why
    /// @throws what the Bundle constructor throws
    virtual std::shared_ptr<Bundle> CreateBundle(const std::string& bundleStoragePath) = 0;
};

/// Makes bundles of plain directories. Runs no script: the manager installs bundles.
class BundleStorageDirFactory : public BundleFactory {
public:
    /// @param scriptObserver of all bundles that it makes; may be empty
    explicit BundleStorageDirFactory(Bundle::ScriptObserver scriptObserver = {});
    ~BundleStorageDirFactory() override;

    /// @throws Poco::FileNotFoundException nothing exists at that path
    std::shared_ptr<Bundle> CreateBundle(const std::string& bundleStoragePath) override;

private:
    const Bundle::ScriptObserver m_scriptObserver;
};

} // namespace SystemServer

#endif
