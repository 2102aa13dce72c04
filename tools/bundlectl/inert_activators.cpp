// Replaces the server's own function when bundlectl is linked. bundlectl loads bundles and starts none. So a small
// device gets no second copy of the code that launches and supervises items.
#include <bundle_activator_factory.h>

#include <utility>

namespace SystemServer {

namespace {

class InertActivator : public BundleActivator {
public:
    explicit InertActivator(std::shared_ptr<Bundle> bundle) : BundleActivator(std::move(bundle)) {}

    void Start() override {}
    void Stop() override {}
};

} // namespace

std::shared_ptr<BundleActivator> BundleActivatorFactory::CreateBundleActivator(BundleManifest::LoadModeType mode,
                                                                               std::shared_ptr<Bundle> bundle)
{
    switch (mode) {
    case BundleManifest::PROCESS_LOAD_MODE:
    case BundleManifest::THREAD_LOAD_MODE:
        return std::make_shared<InertActivator>(std::move(bundle));
    }
    return nullptr; // this refuses the mode
}

} // namespace SystemServer
