#ifndef BUNDLECTL_MODEL_FINDINGS_H
#define BUNDLECTL_MODEL_FINDINGS_H

#include "finding.h"
#include "status.h"

#include <string>
#include <vector>

namespace Model {

/// Searches the installation for faults. Only reads; what this user may not read gives no finding.
/// @param proc of the machine, or a copy of it in tests
/// @return the errors first
std::vector<Finding> FindingsOf(const Snapshot& snapshot, const std::vector<BundleStatus>& bundles,
                                const MachinePlaces& places, const Proc& proc);

} // namespace Model

#endif
