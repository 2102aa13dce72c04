#ifndef BUNDLECTL_MODEL_FINDING_H
#define BUNDLECTL_MODEL_FINDING_H

#include <string>
#include <vector>

namespace Model {

/// A present or future fault of an installation.
struct Finding {
    const char* kind = ""; ///< a word for programs: "monitor-dead"
    bool isError = true;   ///< false: a warning
    std::string what;      ///< a sentence
    std::string why;       ///< a sentence: why it matters
    std::string remedy;    ///< the command or the step that repairs it
};

/// The places where an installation is searched for. Tests use others.
struct MachinePlaces {
    std::string serviceDirectory = "/mnt/bolt";
    std::vector<std::string> serviceFiles = {
        "/etc/systemd/system/bundle-server.service", "/lib/systemd/system/bundle-server.service",
        "/usr/lib/systemd/system/bundle-server.service", "/usr/local/lib/systemd/system/bundle-server.service",
        "/etc/init.d/bundle-server"};
};

} // namespace Model

#endif
