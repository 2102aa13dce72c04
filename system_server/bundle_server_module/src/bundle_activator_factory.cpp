#include "bundle_activator_factory.h"

#include "bundle_process_activator.h"
#include "bundle_thread_activator.h"

#include <utility>

namespace SystemServer {

std::shared_ptr<BundleActivator> BundleActivatorFactory::CreateBundleActivator(BundleManifest::LoadModeType mode,
                                                                               std::shared_ptr<Bundle> bundle)
{
    switch (mode) {
    case BundleManifest::PROCESS_LOAD_MODE:
        return std::make_shared<BundleProcessActivator>(std::move(bundle));
    case BundleManifest::THREAD_LOAD_MODE:
        return std::make_shared<BundleThreadActivator>(std::move(bundle));
    }
    return nullptr; // a manifest may carry any integer
}

} // namespace SystemServer
