#include "findings.h"

#include "findings_parts.h"

#include <algorithm>

namespace Model {

std::vector<Finding> FindingsOf(const Snapshot& snapshot, const std::vector<BundleStatus>& bundles,
                                const MachinePlaces& places, const Proc& proc)
{
    Examination examination{snapshot, bundles, places, proc};
    ExamineProcesses(examination);
    ExamineFiles(examination);
    std::stable_partition(examination.findings.begin(), examination.findings.end(),
                          [](const Finding& finding) { return finding.isError; });
    return std::move(examination.findings);
}

} // namespace Model
