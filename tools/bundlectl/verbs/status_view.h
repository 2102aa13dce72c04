#ifndef BUNDLECTL_VERBS_STATUS_VIEW_H
#define BUNDLECTL_VERBS_STATUS_VIEW_H

#include "model/status.h"
#include "output/terminal.h"

#include <string>
#include <vector>

namespace Verbs {

/// A line a bundle, with a line about the server above and one that sums up below.
std::string StatusTable(const Model::Snapshot& snapshot, const std::vector<Model::BundleStatus>& bundles,
                        const Output::Terminal& terminal);

/// All about one bundle: its items with what they use.
std::string StatusDetails(const Model::Snapshot& snapshot, const Model::BundleStatus& bundle,
                          const Output::Terminal& terminal);

/// For programs. @param withDetails what items use is measured too
std::string StatusJson(const Model::Snapshot& snapshot, const std::vector<const Model::BundleStatus*>& bundles,
                       bool withDetails);

/// A mark before a state, and its colour.
Output::Mark MarkOf(const Model::BundleStatus& bundle);
Output::Colour ColourOf(const Model::BundleStatus& bundle);

/// "Active", or what stands in its place for a directory that is not taken in.
std::string NameOfState(const Model::BundleStatus& bundle);

} // namespace Verbs

#endif
