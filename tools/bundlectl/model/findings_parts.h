#ifndef BUNDLECTL_MODEL_FINDINGS_PARTS_H
#define BUNDLECTL_MODEL_FINDINGS_PARTS_H

#include "finding.h"
#include "status.h"

#include <utility>

namespace Model {

/// What the checks look at, and where they put what they find.
struct Examination {
    const Snapshot& snapshot;
    const std::vector<BundleStatus>& bundles;
    const MachinePlaces& places;
    const Proc& proc;
    std::vector<Finding> findings{};

    void Error(const char* kind, std::string what, std::string why, std::string remedy)
    {
        findings.push_back({kind, true, std::move(what), std::move(why), std::move(remedy)});
    }
    void Warn(const char* kind, std::string what, std::string why, std::string remedy)
    {
        findings.push_back({kind, false, std::move(what), std::move(why), std::move(remedy)});
    }
};

/// The files: configuration, collection, loader, log, disk, service files.
void ExamineFiles(Examination& examination);

/// What runs: server, socket, monitor, items, clock.
void ExamineProcesses(Examination& examination);

} // namespace Model

#endif
