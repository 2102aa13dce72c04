#ifndef BUNDLECTL_MODEL_REFUSAL_WORDS_H
#define BUNDLECTL_MODEL_REFUSAL_WORDS_H

#include "reason.h"
#include "status.h"

namespace Model {

/// Describes a verdict on a directory, and how to repair the fault.
Reason ReasonOfVerdict(const DeclaredBundle& bundle);

/// Describes a failure that is in the log.
Reason ReasonOfProblem(const Problem& problem, const BundleStatus& bundle);

/// Why items of an Active bundle are down or faulty.
std::vector<Reason> ReasonsOfItems(const Snapshot& snapshot, const BundleStatus& bundle, bool checkFiles);

} // namespace Model

#endif
