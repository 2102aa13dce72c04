#ifndef BUNDLECTL_MODEL_INSTALLATION_H
#define BUNDLECTL_MODEL_INSTALLATION_H

#include "proc.h"
#include "server_process.h"

#include <optional>
#include <string>
#include <vector>

namespace Model {

/// What the user has said about where things are; empty: nothing.
struct Choice {
    std::string configuration;
    std::string collection;
    std::string log; ///< a file; "-": standard input; "journal" or "journal:UNIT": the journal
};

/// Where the log is.
struct LogLocation {
    enum Kind {
        NOWHERE, ///< it cannot be read, or does not exist; "why" says more
        FILE,    ///< path
        JOURNAL, ///< path: the unit
        STANDARD_INPUT,
    };

    Kind kind = NOWHERE;
    std::string path;
    std::string why; ///< how it was found, or why it was not, for people
};

/// What the server's configuration file says.
struct ServerConfiguration {
    std::string collection;      ///< as it stands there
    std::string loaderDirectory; ///< the default where it does not name one
    std::string trouble;         ///< why it cannot be read; empty when it can
};

/// What a verb is to look at.
struct Installation {
    std::optional<ServerProcess> server; ///< the one that is meant; empty: none runs
    std::vector<ServerProcess> others;   ///< further servers that run
    std::string configuration;           ///< path; empty: unknown
    ServerConfiguration settings;
    std::string collection; ///< as the server has it; empty: unknown
    std::string base;       ///< what a relative path of the server's is relative to
    LogLocation log;
    std::vector<std::string> notes; ///< sentences for people: what could not be seen, what was taken of several
};

constexpr const char INSTALLED_CONFIGURATION[] = "/etc/bundle-server/bundle-server.ini";
constexpr const char INSTALLED_LOG[] = "/var/log/bundle-server/bundle-server.log";
constexpr const char INSTALLED_UNIT[] = "bundle-server.service";

/// Reads a configuration as the server does.
/// @param programDirectory of the server's program, which the configuration may refer to
ServerConfiguration ReadConfiguration(const std::string& path, const std::string& programDirectory);

/// Finds the server, its configuration, its collection and its log: from what the user has said, else from the running
/// server, else from what is installed.
Installation FindInstallation(const Choice& choice, const Proc& proc);

} // namespace Model

#endif
