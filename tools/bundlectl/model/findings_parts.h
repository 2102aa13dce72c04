#ifndef BUNDLECTL_MODEL_FINDINGS_PARTS_H
#define BUNDLECTL_MODEL_FINDINGS_PARTS_H

#include "finding.h"
#include "status.h"

#include <utility>

namespace Model {

/// The input of the checks, and their findings. All references are to objects of the caller, who reads the findings
/// afterwards.
struct Examination {
    const Snapshot& snapshot;
    const std::vector<BundleStatus>& bundles;
    const MachinePlaces& places;
    const Proc& proc;
    std::vector<Finding> findings{};

    /// @param kind static, for programs; the other texts are sentences for people
    void Error(const char* kind, std::string what, std::string why, std::string remedy)
    {
        findings.push_back({kind, true, std::move(what), std::move(why), std::move(remedy)});
    }
    void Warn(const char* kind, std::string what, std::string why, std::string remedy)
    {
        findings.push_back({kind, false, std::move(what), std::move(why), std::move(remedy)});
    }
};

/// Examines the files: configuration, collection, loader, log, disk, service files.
void ExamineFiles(Examination& examination);

/// Examines what runs: server, socket, monitor, items, clock.
void ExamineProcesses(Examination& examination);

} // namespace Model

#endif
