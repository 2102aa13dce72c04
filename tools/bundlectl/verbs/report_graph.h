#ifndef BUNDLECTL_VERBS_REPORT_GRAPH_H
#define BUNDLECTL_VERBS_REPORT_GRAPH_H

#include "model/status.h"

#include <string>
#include <vector>

namespace Verbs {

/// Who requires whom, as SVG: a bundle stands to the right of all that it requires. Empty when there are no bundles.
std::string DependencyGraph(const std::vector<Model::BundleStatus>& bundles);

} // namespace Verbs

#endif
