#ifndef BUNDLECTL_MODEL_FINDINGS_H
#define BUNDLECTL_MODEL_FINDINGS_H

#include "status.h"

#include <string>
#include <vector>

namespace Model {

/// Something about an installation that is wrong, or will be.
struct Finding {
    const char* kind = ""; ///< a word for programs: "monitor-dead"
    bool isError = true;   ///< false: a warning
    std::string what;      ///< a sentence
    std::string why;       ///< a sentence: why it matters
    std::string remedy;    ///< the command or the step that mends it
};

/// Where an installation is looked for; others in tests.
struct MachinePlaces {
    std::string serviceDirectory = "/mnt/bolt";
    std::vector<std::string> serviceFiles = {
        "/etc/systemd/system/bundle-server.service", "/lib/systemd/system/bundle-server.service",
        "/usr/lib/systemd/system/bundle-server.service", "/usr/local/lib/systemd/system/bundle-server.service",
        "/etc/init.d/bundle-server"};
};

/// What is wrong, the errors first. Looks, and changes nothing.
std::vector<Finding> FindingsOf(const Snapshot& snapshot, const std::vector<BundleStatus>& bundles,
                                const MachinePlaces& places, const Proc& proc);

} // namespace Model

#endif
