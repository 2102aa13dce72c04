#ifndef BUNDLECTL_AUTHOR_TRIAL_BUNDLES_H
#define BUNDLECTL_AUTHOR_TRIAL_BUNDLES_H

#include <map>
#include <string>
#include <vector>

namespace Trials {

/// A collection of copies, so that the bundles themselves stay unchanged.
struct TrialBundles {
    std::string collection;
    std::map<std::string, std::string> sources; ///< of each copy's path, the directory that was given
    std::vector<std::string> stubs;             ///< names of required bundles that the user has not given

    bool IsGiven(const std::string& path) const { return sources.count(path) != 0; }
    /// The text with the paths of the copies replaced by the given directories.
    std::string WithSources(std::string text) const;
};

/// A sentence that says why a directory cannot be tried; empty: it can.
std::string FaultOfBundle(const std::string& directory);

/// Copies the bundles into a new directory. Required bundles that are not among them are replaced by bundles without
/// items.
/// @throws std::exception a bundle cannot be copied
TrialBundles CopyBundles(const std::vector<std::string>& directories, const std::string& collection);

} // namespace Trials

#endif
