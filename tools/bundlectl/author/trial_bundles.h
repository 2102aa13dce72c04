#ifndef BUNDLECTL_AUTHOR_TRIAL_BUNDLES_H
#define BUNDLECTL_AUTHOR_TRIAL_BUNDLES_H

#include <map>
#include <string>
#include <vector>

namespace Trials {

/// A collection of copies, so that the bundles themselves stay as they are.
struct TrialBundles {
    std::string collection;
    std::map<std::string, std::string> sources; ///< of each copy's path, the directory that was given
    std::vector<std::string> stubs;             ///< names of required bundles that were not given

    bool IsGiven(const std::string& path) const { return sources.count(path) != 0; }
    /// The text with the given directories in place of the copies.
    std::string WithSources(std::string text) const;
};

/// What keeps a directory from being tried, in a sentence; empty: nothing.
std::string FaultOfBundle(const std::string& directory);

/// Copies the bundles into a new directory. What they require and is not among them is replaced by bundles without
/// items.
/// @throws std::exception a bundle cannot be copied
TrialBundles CopyBundles(const std::vector<std::string>& directories, const std::string& collection);

} // namespace Trials

#endif
