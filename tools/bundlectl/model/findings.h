#ifndef BUNDLECTL_MODEL_FINDINGS_H
#define BUNDLECTL_MODEL_FINDINGS_H

#include "finding.h"
#include "status.h"

#include <string>
#include <vector>

namespace Model {

/// What is wrong, the errors first. Looks, and changes nothing.
std::vector<Finding> FindingsOf(const Snapshot& snapshot, const std::vector<BundleStatus>& bundles,
                                const MachinePlaces& places, const Proc& proc);

} // namespace Model

#endif
