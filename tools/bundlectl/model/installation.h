#ifndef BUNDLECTL_MODEL_INSTALLATION_H
#define BUNDLECTL_MODEL_INSTALLATION_H

#include "proc.h"
#include "server_process.h"

#include <optional>
#include <string>
#include <vector>

namespace Model {

/// The places that the user has given; empty: not given.
struct Choice {
    std::string configuration;
    std::string collection;
    std::string log; ///< a file; "-": standard input; "journal" or "journal:UNIT": the journal
};

/// Where the log is.
struct LogLocation {
    enum Kind {
        NOWHERE, ///< it cannot be read or does not exist; "why" gives the reason
        FILE,    ///< path
        JOURNAL, ///< path: the unit
        STANDARD_INPUT,
    };

    Kind kind = NOWHERE;
    std::string path;
    std::string why; ///< for people: how it was found, or why not
};

/// The values of the server's configuration file.
struct ServerConfiguration {
    std::string collection;      ///< as written in the file
    std::string loaderDirectory; ///< the default if the file has none
    std::string trouble;         ///< why it cannot be read; empty when it can
};

/// The objects that a verb examines.
struct Installation {
    std::optional<ServerProcess> server; ///< the selected server; empty: none runs
    std::vector<ServerProcess> others;   ///< other running servers
    std::string configuration;           ///< path; empty: unknown
    ServerConfiguration settings;
    std::string collection; ///< in the server's form; empty: unknown
    std::string base;       ///< the directory for the server's relative paths
    LogLocation log;
    std::vector<std::string> notes; ///< sentences for people: what could not be read, which of several was chosen
};

constexpr const char INSTALLED_CONFIGURATION[] = "/etc/bundle-server/bundle-server.ini";
constexpr const char INSTALLED_LOG[] = "/var/log/bundle-server/bundle-server.log";
constexpr const char INSTALLED_UNIT[] = "bundle-server.service";

/// Reads a configuration like the server.
/// @param programDirectory of the server's program, which the configuration may refer to
ServerConfiguration ReadConfiguration(const std::string& path, const std::string& programDirectory);

/// Finds the server, its configuration, its collection and its log. Uses what the user has given, otherwise the running
/// server, otherwise the installed files.
Installation FindInstallation(const Choice& choice, const Proc& proc);

} // namespace Model

#endif
