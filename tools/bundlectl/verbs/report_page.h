#ifndef BUNDLECTL_VERBS_REPORT_PAGE_H
#define BUNDLECTL_VERBS_REPORT_PAGE_H

#include "model/findings.h"
#include "model/timeline.h"

#include <optional>
#include <string>
#include <vector>

namespace Verbs {

/// What a report tells.
struct Report {
    const Model::Snapshot& snapshot;
    const std::vector<Model::BundleStatus>& bundles;
    std::vector<Model::Finding> findings;
    std::optional<Model::Timeline> timeline; ///< empty: the log has no start-up
    std::vector<std::string> errors;         ///< the log's last errors, as written
    std::vector<std::pair<std::string, std::string>> versions;
};

/// One HTML page that needs no network: styles and pictures are in it, and it has no script. Values of environment
/// variables are not among what it is made of.
std::string ReportPage(const Report& report);

} // namespace Verbs

#endif
