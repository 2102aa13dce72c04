#ifndef BUNDLE_ACTIVATOR_H
#define BUNDLE_ACTIVATOR_H

#include "bundle.h"

#include <memory>
#include <utility>

namespace SystemServer {

/// Starts and stops a bundle's items. Made once per bundle and used for every start and stop. The manager calls these
/// under its lock. Destroying it stops nothing.
class BundleActivator {
public:
    virtual ~BundleActivator() = default;
    BundleActivator(const BundleActivator&) = delete;
    BundleActivator& operator=(const BundleActivator&) = delete;

    /// @throws Poco::Exception an item cannot be started; the items before it stay started
    virtual void Start() = 0;

    /// @throws Poco::Exception an item cannot be stopped; the items after it stay as they are
    virtual void Stop() = 0;

protected:
    explicit BundleActivator(std::shared_ptr<Bundle> bundle) : m_bundle(std::move(bundle)) {}

    const std::shared_ptr<Bundle> m_bundle; // its state and manifest may be read on any thread
};

} // namespace SystemServer

#endif
