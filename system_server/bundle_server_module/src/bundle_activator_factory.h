#ifndef BUNDLE_ACTIVATOR_FACTORY_H
#define BUNDLE_ACTIVATOR_FACTORY_H

#include "bundle_activator.h"

#include <memory>

namespace SystemServer {

/// Chooses the activator for a load mode. Any thread; keeps nothing.
class BundleActivatorFactory {
public:
    /// @return a new activator that has started nothing and shares the bundle; empty, with a record, when the mode has
    /// no activator
    static std::shared_ptr<BundleActivator> CreateBundleActivator(BundleManifest::LoadModeType mode,
                                                                  std::shared_ptr<Bundle> bundle);
};

} // namespace SystemServer

#endif
