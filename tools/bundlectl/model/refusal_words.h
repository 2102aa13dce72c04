#ifndef BUNDLECTL_MODEL_REFUSAL_WORDS_H
#define BUNDLECTL_MODEL_REFUSAL_WORDS_H

#include "reason.h"
#include "status.h"

namespace Model {

/// What a verdict on a directory means, and what mends it.
Reason ReasonOfVerdict(const DeclaredBundle& bundle);

/// What a failure means that the log tells of.
Reason ReasonOfProblem(const Problem& problem, const BundleStatus& bundle);

/// Why items of an Active bundle are not up, or not as they should be.
std::vector<Reason> ReasonsOfItems(const Snapshot& snapshot, const BundleStatus& bundle, bool checkFiles);

} // namespace Model

#endif
