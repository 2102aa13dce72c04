#ifndef BUNDLECTL_VERBS_REPORT_PAGE_H
#define BUNDLECTL_VERBS_REPORT_PAGE_H

#include "model/findings.h"
#include "model/timeline.h"

#include <optional>
#include <string>
#include <vector>

namespace Verbs {

/// The content of a report.
struct Report {
    const Model::Snapshot& snapshot;
    const std::vector<Model::BundleStatus>& bundles;
    std::vector<Model::Finding> findings;
    std::optional<Model::Timeline> timeline; ///< empty: no start-up in the log
    std::vector<std::string> errors;         ///< the log's last errors, as written
    std::vector<std::pair<std::string, std::string>> versions;
};

/// One HTML page that needs no network. It contains its styles and pictures, and has no script. It does not contain
/// values of environment variables.
std::string ReportPage(const Report& report);

} // namespace Verbs

#endif
