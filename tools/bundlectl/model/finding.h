#ifndef BUNDLECTL_MODEL_FINDING_H
#define BUNDLECTL_MODEL_FINDING_H

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

} // namespace Model

#endif
