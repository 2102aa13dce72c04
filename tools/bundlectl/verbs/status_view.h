#ifndef BUNDLECTL_VERBS_STATUS_VIEW_H
#define BUNDLECTL_VERBS_STATUS_VIEW_H

#include "model/status.h"
#include "output/terminal.h"

#include <string>
#include <vector>

namespace Verbs {

/// One line for each bundle, with a line about the server above and a summary below.
std::string StatusTable(const Model::Snapshot& snapshot, const std::vector<Model::BundleStatus>& bundles,
                        const Output::Terminal& terminal);

/// The details of one bundle: its items and the resources that they use.
std::string StatusDetails(const Model::Snapshot& snapshot, const Model::BundleStatus& bundle,
                          const Output::Terminal& terminal);

/// For programs. @param withDetails also measures the resources that items use
std::string StatusJson(const Model::Snapshot& snapshot, const std::vector<const Model::BundleStatus*>& bundles,
                       bool withDetails);

/// A mark before a state, and its colour.
Output::Mark MarkOf(const Model::BundleStatus& bundle);
Output::Colour ColourOf(const Model::BundleStatus& bundle);

/// "Active", or a replacement for a directory that is not loaded.
std::string NameOfState(const Model::BundleStatus& bundle);

} // namespace Verbs

#endif
