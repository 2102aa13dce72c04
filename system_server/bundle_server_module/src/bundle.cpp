#include "bundle.h"

#include "bundle_layout.h"
#include "bundle_log.h"
#include "file_type.h"
#include "group_leader.h"

#include <Poco/Exception.h>
#include <Poco/Process.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <istream>
#include <utility>

namespace SystemServer {

namespace {

std::string FolderPath(const char* name)
{
    return "./" + std::string(name) + "/";
}

} // namespace

const std::string Bundle::BUNDLE_MANIFEST_FILE = BundleLayout::MANIFEST;
const std::string Bundle::BUNDLE_MANIFEST_FILE_PATH = "./";
const std::string& Bundle::BUNDLE_BIN_FILE_PATH = *new std::string(FolderPath(BundleLayout::BIN));
const std::string Bundle::BUNDLE_SCRIPT_FILE_PATH = FolderPath(BundleLayout::SCRIPT);
const std::string Bundle::BUNDLE_MANIFEST_FILE_LOCATION = BUNDLE_MANIFEST_FILE_PATH + BUNDLE_MANIFEST_FILE;
const std::string Bundle::BUNDLE_INSTALLED_STATE_STR = "Installed";
const std::string Bundle::BUNDLE_UNINSTALLED_STATE_STR = "Uninstalled";
const std::string Bundle::BUNDLE_RESOLVED_STATE_STR = "Resolved";
const std::string Bundle::BUNDLE_STARTING_STATE_STR = "Starting";
const std::string Bundle::BUNDLE_STOPPING_STATE_STR = "Stopping";
const std::string Bundle::BUNDLE_ACTIVE_STATE_STR = "Active";
const std::unordered_map<Bundle::BUNDLE_STATE_E, std::string> Bundle::m_bundleStateStrMap = {
    {BUNDLE_INSTALLED, BUNDLE_INSTALLED_STATE_STR}, {BUNDLE_UNINSTALLED, BUNDLE_UNINSTALLED_STATE_STR},
    {BUNDLE_RESOLVED, BUNDLE_RESOLVED_STATE_STR},   {BUNDLE_STARTING, BUNDLE_STARTING_STATE_STR},
    {BUNDLE_STOPPING, BUNDLE_STOPPING_STATE_STR},   {BUNDLE_ACTIVE, BUNDLE_ACTIVE_STATE_STR},
};

Bundle::Bundle(std::shared_ptr<BundleStorage> storage, ScriptObserver scriptObserver)
    : m_storage(std::move(storage)), m_scriptObserver(std::move(scriptObserver))
{
    m_manifest.Store(ReadManifest());
}

Bundle::~Bundle() = default;

std::shared_ptr<BundleManifest> Bundle::ReadManifest() const
{
    const std::unique_ptr<std::istream> stream(m_storage->GetResourceFile(BUNDLE_MANIFEST_FILE_LOCATION));
    if (!stream) {
        throw Poco::FileNotFoundException("[" + BUNDLE_MANIFEST_FILE_LOCATION + "] not found.");
    }
    return std::make_shared<BundleManifest>(*stream);
}

// Always adds "/", even if the root path ends in one: the log's texts contain it.
std::string Bundle::PathBelowRoot(const std::string& relativePath) const
{
    return m_storage->GetRootPath() + "/" + relativePath;
}

std::string Bundle::ItemPath(const std::string& itemName) const
{
    return PathBelowRoot(BUNDLE_BIN_FILE_PATH + itemName);
}

std::string Bundle::ScriptPath(const std::string& scriptName) const
{
    return PathBelowRoot(BUNDLE_SCRIPT_FILE_PATH + scriptName);
}

bool Bundle::IsManifestOutdated() const
{
    // Checked first, because the storage logs a missing file.
    struct stat status {};
    const std::string path = PathBelowRoot(BUNDLE_MANIFEST_FILE);
    if (stat(path.c_str(), &status) == -1 || !S_ISREG(status.st_mode)) {
        return false;
    }
    try {
        const std::unique_ptr<std::istream> stream(m_storage->GetResourceFile(BUNDLE_MANIFEST_FILE_LOCATION));
        return stream && !GetManifest()->WasReadFrom(*stream);
    } catch (const Poco::Exception&) {
        return false;
    }
}

void Bundle::RunScript(const std::string& scriptName) const
{
    const std::string path = ScriptPath(scriptName);
    if (!FileType(path)) {
        const int error = errno;
        if (!MeansAbsence(error)) {
            BUNDLE_ERROR("script[%s] can not be looked at: %s. It is not run.", path.c_str(), std::strerror(error));
        }
        return;
    }
    try {
        BUNDLE_INFO("run script[%s]...", path.c_str());
        const GroupLeader script = LaunchInOwnGroup(path, {});
        if (script.groupError != 0) {
            BUNDLE_ERROR("setpgid %d to pgid %d failed errno %d ", script.process.id(), 0, script.groupError);
        }
        script.process.wait();
        BUNDLE_INFO("run script[%s] done.", path.c_str());
    } catch (const Poco::Exception& e) {
        BUNDLE_ERROR("exception info: [%s].", e.displayText().c_str());
    }
    if (m_scriptObserver) {
        m_scriptObserver(*this);
    }
}

void Bundle::Update()
{
    m_manifest.Store(ReadManifest());
    RunScript("update.sh");
}

} // namespace SystemServer
