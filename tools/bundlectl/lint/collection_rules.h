#ifndef BUNDLECTL_LINT_COLLECTION_RULES_H
#define BUNDLECTL_LINT_COLLECTION_RULES_H

#include "lint/subject.h"

#include <string>
#include <vector>

namespace Lint {

/// Checks bundles together: their names, and what they require of each other.
/// @param bundles the bundles to check
/// @param others further bundles of their collection, which may be required; they are not checked
/// @param isWhole bundles and others are the whole collection, so required bundles must be among them
void CheckTogether(const std::vector<Subject>& bundles, const std::vector<Subject>& others, bool isWhole,
                   Report& report);

} // namespace Lint

#endif
