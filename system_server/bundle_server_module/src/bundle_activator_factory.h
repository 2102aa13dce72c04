#ifndef BUNDLE_ACTIVATOR_FACTORY_H
#define BUNDLE_ACTIVATOR_FACTORY_H

#include "bundle_activator.h"

#include <memory>

namespace SystemServer {

class BundleActivatorFactory {
public:
    /// @return a new activator that has started nothing; empty when there is none for the mode
    static std::shared_ptr<BundleActivator> CreateBundleActivator(BundleManifest::LoadModeType mode,
                                                                  std::shared_ptr<Bundle> bundle);
};

} // namespace SystemServer

#endif
