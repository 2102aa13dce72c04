#ifndef BUNDLE_H
#define BUNDLE_H

#include "atomic_shared_ptr.h"
#include "bundle_log.h"
#include "bundle_manifest.h"
#include "bundle_storage_dir.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

namespace SystemServer {

/// One bundle directory as the server knows it: its files, its manifest, its state. The manager decides which changes
/// of state make sense, and makes them under its lock. Any thread may read the state and the manifest.
class Bundle {
public:
    /// Powers of two, so that a set of states fits one integer.
    enum BUNDLE_STATE_E : int {
        BUNDLE_INSTALLED = 1,
        BUNDLE_UNINSTALLED = 2,
        BUNDLE_RESOLVED = 4,
        BUNDLE_STARTING = 8,
        BUNDLE_STOPPING = 16,
        BUNDLE_ACTIVE = 32
    };

    static const std::string BUNDLE_MANIFEST_FILE;
    static const std::string BUNDLE_MANIFEST_FILE_PATH;
    /// A reference to a string that is never destroyed: item threads use it and may still run when the process ends.
    static const std::string& BUNDLE_BIN_FILE_PATH;
    static const std::string BUNDLE_SCRIPT_FILE_PATH;
    static const std::string BUNDLE_MANIFEST_FILE_LOCATION;
    static const std::string BUNDLE_INSTALLED_STATE_STR;
    static const std::string BUNDLE_UNINSTALLED_STATE_STR;
    static const std::string BUNDLE_RESOLVED_STATE_STR;
    static const std::string BUNDLE_STARTING_STATE_STR;
    static const std::string BUNDLE_STOPPING_STATE_STR;
    static const std::string BUNDLE_ACTIVE_STATE_STR;
    static const std::unordered_map<BUNDLE_STATE_E, std::string> m_bundleStateStrMap;

    /// Called with the bundle after each script has ended, on the thread that ran the script. Must not throw.
    using ScriptObserver = std::function<void(const Bundle& bundle)>;

    /// Reads the manifest through the storage. The bundle keeps the storage for its whole life.
    /// @param scriptObserver may be empty
    /// @throws Poco::FileNotFoundException there is no manifest; the storage's log record says why
    /// @throws what the storage and BundleManifest throw
    explicit Bundle(std::shared_ptr<BundleStorage> storage, ScriptObserver scriptObserver = {});
    virtual ~Bundle();
    Bundle(const Bundle&) = delete;
    Bundle& operator=(const Bundle&) = delete;

    BUNDLE_STATE_E GetCurState() const { return m_curState; }

    /// Logs the change and makes it. A change to the same state is logged too.
    /// @throws std::out_of_range state is none of the six; nothing has changed
    void SetCurState(BUNDLE_STATE_E state)
    {
        const std::string& from = m_bundleStateStrMap.at(m_curState);
        const std::string& to = m_bundleStateStrMap.at(state);
        BUNDLE_INFO("bundle[%s] state changing[%s] -> [%s]", GetManifest()->GetBundleName().c_str(), from.c_str(),
                    to.c_str());
        m_curState = state;
    }

    /// The manifest in force, never null. It stays valid for its holder after an Update.
    std::shared_ptr<BundleManifest> GetManifest() const { return m_manifest.Load(); }

    /// Whether the content of the manifest's file differs from the manifest in force. False when the file cannot be
    /// read. Any thread.
    bool IsManifestOutdated() const;

    std::shared_ptr<BundleStorage> GetStorage() const { return m_storage; }

    /// The path of an item in "bin" and of a script in "script". Does not check that the file exists. Any thread,
    /// including an item thread that still runs when the process ends.
    std::string ItemPath(const std::string& itemName) const;
    std::string ScriptPath(const std::string& scriptName) const;

    /// Runs one script of the bundle's "./script/" directory, if it exists, as a child in a process group of its own,
    /// and waits for it without a time limit. The script's success makes no difference. Any thread.
    void RunScript(const std::string& scriptName) const;

    /// Reads the manifest as it is now, then runs "update.sh". Changes that the script makes to the manifest wait for
    /// the next update. The state stays, and nothing is restarted.
    /// @throws as the constructor; the old manifest stays in force and "update.sh" has not run
    void Update();

private:
    std::shared_ptr<BundleManifest> ReadManifest() const;
    std::string PathBelowRoot(const std::string& relativePath) const;

    std::atomic<BUNDLE_STATE_E> m_curState{BUNDLE_INSTALLED}; // changed under the manager's lock
    AtomicSharedPtr<BundleManifest> m_manifest;               // replaced on one thread while others read it
    const std::shared_ptr<BundleStorage> m_storage;           // immutable
    const ScriptObserver m_scriptObserver;
};

/// The name under which other bundles and the requests know the bundle. It is the manifest's name, so an Update can
/// change it. The copy needs memory, so an out-of-memory record uses the manifest's own string.
inline std::string NameOf(const Bundle& bundle)
{
    return bundle.GetManifest()->GetBundleName();
}

} // namespace SystemServer

#endif
