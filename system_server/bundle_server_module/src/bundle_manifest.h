#ifndef BUNDLE_MANIFEST_H
#define BUNDLE_MANIFEST_H

#include "content_hash.h"

#include <Poco/AutoPtr.h>
#include <Poco/Util/IniFileConfiguration.h>

#include <cstddef>
#include <iosfwd>
#include <string>
#include <vector>

namespace SystemServer {

/// A bundle's description, read from "BundleManifest.ini". Immutable: a changed file becomes a new manifest. So a
/// holder of a shared pointer reads it on any thread without a lock.
class BundleManifest {
public:
    /// How the bundle's items are run. The fixed type holds any integer. Any other mode is refused when the bundle's
    /// activator is made.
    enum LoadModeType : int { PROCESS_LOAD_MODE = 0, THREAD_LOAD_MODE = 1 };

    /// One item, as its section describes it.
    struct LoadItem {
        std::string itemName;  ///< file name below the bundle's "./bin/"
        std::string entryFunc; ///< entered when a ".so" item is run; empty for any other item
    };

    /// A longer manifest is refused: the whole manifest is held in memory. It is read under the manager's lock, and a
    /// device or a growing file might never end.
    static constexpr std::size_t MAX_SIZE = std::size_t{1024} * 1024;

    /// The limit for all keys together, each with its section's name, and for all values together, with references
    /// expanded. A manifest beyond it is refused.
    static constexpr std::size_t MAX_EXPANDED_SIZE = 4 * MAX_SIZE;

    /// Reads and checks the whole stream and logs a summary.
    /// @throws Poco::Exception a key is missing or no integer, the stream cannot be read or is longer than the two
    /// bounds
    /// @throws std::out_of_range an item's name is shorter than three characters
    explicit BundleManifest(std::istream& stream);
    virtual ~BundleManifest();
    BundleManifest(const BundleManifest&) = delete;
    BundleManifest& operator=(const BundleManifest&) = delete;

    /// The manifest owns what the accessors return. It never changes.
    const std::string& GetBundleName() const { return m_bundleName; }
    /// Any integer, see above.
    LoadModeType GetLoadMode() const { return m_loadMode; }

    /// In the order of the file, duplicates included.
    const std::vector<std::string>& GetDependencies() const { return m_dependencies; }

    /// Sorted by the names of their sections without regard to case, which is the order the INI reader keeps.
    const std::vector<LoadItem>& GetLoadItems() const { return m_loadItems; }

    /// Whether the stream has the content that this manifest was read from. Stops reading once the stream is longer
    /// than a manifest may be.
    /// @throws Poco::ReadFileException the stream cannot be read
    bool WasReadFrom(std::istream& stream) const;

private:
    static const std::string GLOBAL_SECTION_NAME;
    static const std::string BUNDLE_NAME;
    static const std::string BUNDLE_LOAD_MODE;
    static const std::string BUNDLE_DEPENDENCY;
    static const std::string DEFAULT_SEPARATOR;
    static const std::string ITEM_NAME;
    static const std::string ENTRY_FUNC;

    void Parse();
    void ParseGlobalSection();
    void ParseDependencies();
    void ParseLoadItem(const std::string& section);
    void Clear();

    LoadModeType m_loadMode = PROCESS_LOAD_MODE;
    std::string m_bundleName;
    std::vector<std::string> m_dependencies;
    std::vector<LoadItem> m_loadItems;
    ContentHash m_contentHash;
    Poco::AutoPtr<Poco::Util::IniFileConfiguration> m_config;
};

} // namespace SystemServer

#endif
