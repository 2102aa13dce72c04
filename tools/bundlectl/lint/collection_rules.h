#ifndef BUNDLECTL_LINT_COLLECTION_RULES_H
#define BUNDLECTL_LINT_COLLECTION_RULES_H

#include "lint/subject.h"

#include <string>
#include <vector>

namespace Lint {

/// What is wrong with bundles only together: names, and what they require of each other.
/// @param bundles those that are looked at
/// @param others further bundles of their collection, which may be required; nothing is said of them
/// @param isWhole bundles and others are all that there is, so what is required must be among them
void CheckTogether(const std::vector<Subject>& bundles, const std::vector<Subject>& others, bool isWhole,
                   Report& report);

} // namespace Lint

#endif
