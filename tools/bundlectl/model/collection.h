#ifndef BUNDLECTL_MODEL_COLLECTION_H
#define BUNDLECTL_MODEL_COLLECTION_H

#include "log_time.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Model {

/// What a server would do with a bundle directory if it started now.
enum class Verdict {
    STARTS,
    NO_MANIFEST,
    MANIFEST_BROKEN,
    ENDS_START_UP, ///< an item's name has fewer than three characters: the whole server does not start
    DUPLICATE,     ///< an earlier directory has the same name
    MODE_REFUSED,
    REQUIRED_MISSING, ///< it, or a bundle that it requires, requires a missing bundle
    CIRCLE,           ///< it is part of a circle of requirements, or requires a bundle that is
    NO_LIBRARY,       ///< thread mode, and an item is not a ".so": it does not start
    REQUIRED_FAILS,   ///< a bundle that it requires does not start
};

/// An item of a manifest.
struct DeclaredItem {
    std::string name;
    std::string entryFunction; ///< of a library
    std::string file;          ///< its path
};

/// A directory of the collection, as the server's own code sees it. Names are escaped as in the log.
struct DeclaredBundle {
    std::string path;       ///< absolute
    std::string loggedPath; ///< as the server writes it
    std::string name;       ///< empty when the manifest does not give it
    int mode = 0;
    std::vector<std::string> required;
    std::vector<DeclaredItem> items;
    Verdict verdict = Verdict::STARTS;
    std::string reason;              ///< the server's own words; empty when it starts
    std::optional<int> manifestLine; ///< the line of the fault
    std::vector<std::string> chain;  ///< REQUIRED_MISSING: from this bundle to the missing one; CIRCLE: to the
                                     ///< repetition; REQUIRED_FAILS: to the one that does not start
    std::string otherPath;           ///< DUPLICATE: of the directory that is taken
    Time changed;                    ///< the last change of what the server watches in it
};

/// What a server would find if it started now.
struct Collection {
    std::string path;
    std::string trouble;                 ///< why it cannot be read; empty when it can
    std::vector<DeclaredBundle> bundles; ///< in the order in which the server looks at them

    /// The bundles with this name, the one that the server accepts first.
    std::vector<const DeclaredBundle*> Find(const std::string& name) const;
    const DeclaredBundle* FindByPath(const std::string& bundlePath) const;
};

/// Reads the collection with the server's own classes. The server's manager loads and resolves it. Runs no script and
/// writes nothing.
/// @param configured as in the configuration
/// @param base the directory for relative paths: the server's working directory
Collection ReadCollection(const std::string& configured, const std::string& base);

/// The latest change in a bundle's directory, its manifest, "bin" and "script", which the server compares.
Time LastChangeOf(const std::string& bundlePath);

} // namespace Model

#endif
