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

/// What a bundle says of itself in "BundleManifest.ini". Immutable: a changed file is taken in as a new manifest, so a
/// holder of a shared pointer reads it from any thread without a lock.
class BundleManifest {
public:
    /// How the bundle's items are run. The fixed type lets a manifest carry any integer: a mode that is neither of the
    /// two is refused when the bundle asks for its activator.
    enum LoadModeType : int { PROCESS_LOAD_MODE = 0, THREAD_LOAD_MODE = 1 };

    /// One item, as its section describes it.
    struct LoadItem {
        std::string itemName;  ///< file name below the bundle's "./bin/"
        std::string entryFunc; ///< entered when a ".so" item is run; empty for any other item
    };

    /// A longer manifest is refused: it is held in memory whole, and one that never ends (a device, a file that still
    /// grows) would be read with the manager's lock held.
    static constexpr std::size_t MAX_SIZE = std::size_t{1024} * 1024;

    /// And one whose keys, each with its section's name, or whose values, with their references expanded, come to more
    /// than this.
    static constexpr std::size_t MAX_EXPANDED_SIZE = 4 * MAX_SIZE;

    /// Reads and checks the whole stream and logs a summary.
    /// @throws Poco::Exception a key is missing or no integer, the stream cannot be read or is longer than the two
    /// bounds
    /// @throws std::out_of_range an item's name is shorter than three characters
    explicit BundleManifest(std::istream& stream);
    virtual ~BundleManifest();
    BundleManifest(const BundleManifest&) = delete;
    BundleManifest& operator=(const BundleManifest&) = delete;

    /// What the accessors return belongs to the manifest and never changes.
    const std::string& GetBundleName() const { return m_bundleName; }
    /// Any integer, see above.
    LoadModeType GetLoadMode() const { return m_loadMode; }

    /// In the order in which they are written, duplicates included.
    const std::vector<std::string>& GetDependencies() const { return m_dependencies; }

    /// Sorted by the names of their sections without regard to case, which is the order the INI reader keeps.
    const std::vector<LoadItem>& GetLoadItems() const { return m_loadItems; }

    /// Whether the stream has the content that this manifest was read from. Of a longer one than a manifest may be, no
    /// more is read than it takes to see that.
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
