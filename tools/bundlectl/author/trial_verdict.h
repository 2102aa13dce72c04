#ifndef BUNDLECTL_AUTHOR_TRIAL_VERDICT_H
#define BUNDLECTL_AUTHOR_TRIAL_VERDICT_H

#include "model/reasons.h"
#include "model/status.h"
#include "trial_bundles.h"

#include <string>
#include <vector>

namespace Trials {

/// An end of an item that was not requested.
struct Death {
    std::string item;
    std::string how; ///< "SIGSEGV", "status 3"
    bool wasRunAgain = false;
};

/// The result for a bundle that the user has given.
struct BundleVerdict {
    std::string directory; ///< that was given
    std::string name;      ///< empty: not in the manifest
    std::string state;     ///< "Active"; "refused" when the server has not loaded it
    std::size_t items = 0;
    std::size_t itemsUp = 0;
    bool isGood = false; ///< Active, all items are up, and none has died
    std::vector<Death> deaths;
    std::vector<Model::Reason> reasons; ///< as "bundlectl why" gives them, with the given directories
};

/// In the order of their names.
std::vector<BundleVerdict> Judge(const Model::Snapshot& snapshot, const TrialBundles& bundles);

} // namespace Trials

#endif
