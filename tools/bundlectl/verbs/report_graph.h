#ifndef BUNDLECTL_VERBS_REPORT_GRAPH_H
#define BUNDLECTL_VERBS_REPORT_GRAPH_H

#include "model/status.h"

#include <string>
#include <vector>

namespace Verbs {

/// The requirements between bundles, as SVG. A bundle is to the right of all bundles that it requires. Empty without
/// bundles.
std::string DependencyGraph(const std::vector<Model::BundleStatus>& bundles);

} // namespace Verbs

#endif
