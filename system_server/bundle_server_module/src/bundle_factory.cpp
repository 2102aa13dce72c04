#include "bundle_factory.h"

#include "bundle_log.h"
#include "bundle_storage_dir.h"
#include "file_type.h"

#include <Poco/File.h>

#include <sys/stat.h>

#include <optional>
#include <utility>

namespace SystemServer {

BundleFactory::~BundleFactory() = default;

BundleStorageDirFactory::BundleStorageDirFactory(Bundle::ScriptObserver scriptObserver)
    : m_scriptObserver(std::move(scriptObserver))
{}

BundleStorageDirFactory::~BundleStorageDirFactory() = default;

std::shared_ptr<Bundle> BundleStorageDirFactory::CreateBundle(const std::string& bundleStoragePath)
{
    const std::optional<mode_t> type = FileType(bundleStoragePath);
    // If the entry is missing or cannot be examined, the framework's test throws an exception that says so.
    if (type ? !S_ISDIR(*type) : !Poco::File(bundleStoragePath).isDirectory()) {
        BUNDLE_ERROR("BundleStoragePath[%s] is not a directory.", bundleStoragePath.c_str());
        return nullptr;
    }
    const std::shared_ptr<BundleStorage> pBundleStorage = std::make_shared<BundleStorageDir>(bundleStoragePath);
    if (!pBundleStorage) {
        BUNDLE_ERROR("pBundleStorage is nullptr.");
        return nullptr;
    }
    return std::make_shared<Bundle>(pBundleStorage, m_scriptObserver);
}

} // namespace SystemServer
