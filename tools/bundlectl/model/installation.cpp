#include "installation.h"

#include "files.h"
#include "printable.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <utility>

namespace Model {

namespace {

std::string CurrentDirectory()
{
    return RealPath(".");
}

std::string DirectoryOf(const std::string& file)
{
    return file.substr(0, file.rfind('/') + 1);
}

bool Exists(const std::string& path)
{
    return ::access(path.c_str(), F_OK) == 0;
}

/// A description of a server for people.
std::string Naming(const ServerProcess& server)
{
    return "the server with process id " + std::to_string(server.stat.pid);
}

/// Whether the server may have this configuration.
bool Uses(const ServerProcess& server, const std::string& configuration)
{
    return !server.configuration.empty() && RealPath(server.configuration) == RealPath(configuration);
}

bool UsesCollection(const ServerProcess& server, const std::string& collection)
{
    const ServerConfiguration settings = ReadConfiguration(server.configuration, DirectoryOf(server.program));
    return settings.trouble.empty() &&
           RealPath(AbsolutePath(server.directory.value_or(""), settings.collection)) == RealPath(collection);
}

template <class Condition> void Keep(std::vector<ServerProcess>& servers, const Condition& condition)
{
    servers.erase(std::remove_if(servers.begin(), servers.end(),
                                 [&condition](const ServerProcess& server) { return !condition(server); }),
                  servers.end());
}

// If several servers run, this is the one that serves, because bundlectl can talk only to that one.
std::optional<ServerProcess> ChooseServer(std::vector<ServerProcess> servers, const Choice& choice,
                                          std::vector<std::string>& notes)
{
    Keep(servers, [](const ServerProcess& server) { return server.isOfOurMounts.value_or(true); });
    if (!choice.configuration.empty()) {
        Keep(servers, [&choice](const ServerProcess& server) { return Uses(server, choice.configuration); });
    } else if (!choice.collection.empty()) {
        Keep(servers, [&choice](const ServerProcess& server) { return UsesCollection(server, choice.collection); });
    }
    if (servers.empty()) {
        return std::nullopt;
    }
    const auto serving =
        std::find_if(servers.begin(), servers.end(), [](const ServerProcess& server) { return server.isServing; });
    const ServerProcess& chosen = serving == servers.end() ? servers.back() : *serving;
    if (servers.size() > 1) {
        notes.push_back(std::to_string(servers.size()) + " servers run. This is about " + Naming(chosen) +
                        "; --config FILE chooses another.");
    }
    return chosen;
}

/// The value of a variable in a file of shell variables; empty when the file does not set it.
std::string VariableIn(const std::string& file, const std::string& name)
{
    std::istringstream lines(ReadFileAtMost(file).value_or(""));
    std::string value;
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, name.size() + 1, name + "=") == 0) {
            value = line.substr(name.size() + 1);
            if (value.size() > 1 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front()) {
                value = value.substr(1, value.size() - 2);
            }
        }
    }
    return value;
}

LogLocation LogOfChoice(const std::string& log)
{
    const std::string journal = "journal";
    if (log == "-") {
        return {LogLocation::STANDARD_INPUT, "", "--log -"};
    }
    if (log == journal || log.compare(0, journal.size() + 1, journal + ":") == 0) {
        const std::string unit = log == journal ? INSTALLED_UNIT : log.substr(journal.size() + 1);
        return {LogLocation::JOURNAL, unit, "--log"};
    }
    return {LogLocation::FILE, log, "--log"};
}

/// Interprets a descriptor's target as the place of the log.
LogLocation LogOfStandardError(const ServerProcess& server)
{
    const std::string& target = server.standardError;
    const std::string of = "standard error of " + Naming(server);
    if (target.compare(0, 7, "socket:") == 0) {
        if (server.journalStream.empty() || server.unit.empty()) {
            return {LogLocation::NOWHERE, "", of + " is a socket of another program"};
        }
        return {LogLocation::JOURNAL, server.unit, of};
    }
    if (target.empty() || target.front() != '/') {
        return {LogLocation::NOWHERE, "", of + (target.empty() ? " is closed" : " is " + target)};
    }
    struct stat status {};
    if (::stat(target.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return {LogLocation::NOWHERE, "", of + " goes to " + target + ", which cannot be read again"};
    }
    return {LogLocation::FILE, target, of};
}

LogLocation LogOfServer(const ServerProcess& server)
{
    if (!server.isReadable) {
        return {LogLocation::NOWHERE, "",
                "the environment of " + Naming(server) + " may be read by its own user and root only"};
    }
    struct stat status {};
    if (server.logFile.empty() || ::stat(server.logFile.c_str(), &status) != 0) {
        return LogOfStandardError(server);
    }
    if (S_ISFIFO(status.st_mode)) {
        return {LogLocation::NOWHERE, "", "ZQ_LOG_FILE of " + Naming(server) + " is a FIFO, whose reader has the log"};
    }
    return {LogLocation::FILE, server.logFile, "ZQ_LOG_FILE of " + Naming(server)};
}

LogLocation InstalledLog()
{
    const std::string file = VariableIn("/etc/default/bundle-server", "ZQ_LOG_FILE");
    if (!file.empty()) {
        return {LogLocation::FILE, file, "/etc/default/bundle-server"};
    }
    if (Exists(INSTALLED_LOG)) {
        return {LogLocation::FILE, INSTALLED_LOG, "the init script's log"};
    }
    if (Exists("/run/systemd/system")) {
        return {LogLocation::JOURNAL, INSTALLED_UNIT, "the journal"};
    }
    return {LogLocation::NOWHERE, "", "no server runs, and there is no log in the installed place"};
}

} // namespace

Installation FindInstallation(const Choice& choice, const Proc& proc)
{
    Installation found;
    found.others = FindServers(proc);
    found.server = ChooseServer(found.others, choice, found.notes);
    const bool hasServer = found.server.has_value();
    Keep(found.others,
         [&found](const ServerProcess& server) { return !found.server || server.stat.pid != found.server->stat.pid; });
    found.base = hasServer ? found.server->directory.value_or("") : CurrentDirectory();
    found.configuration = !choice.configuration.empty() ? choice.configuration
                          : hasServer                   ? found.server->configuration
                                                        : INSTALLED_CONFIGURATION;
    if (choice.collection.empty() || Exists(found.configuration)) {
        const std::string program = hasServer && !found.server->program.empty() ? found.server->program : "/usr/sbin/";
        found.settings = ReadConfiguration(found.configuration, DirectoryOf(program));
    }
    found.collection = choice.collection.empty() ? found.settings.collection : choice.collection;
    if (!choice.collection.empty()) {
        found.base = CurrentDirectory();
    }
    found.log = !choice.log.empty() ? LogOfChoice(choice.log) : hasServer ? LogOfServer(*found.server) : InstalledLog();
    if (found.log.kind == LogLocation::NOWHERE) {
        found.notes.push_back("The log is not read: " + found.log.why + ". --log FILE names it.");
    }
    return found;
}

} // namespace Model
