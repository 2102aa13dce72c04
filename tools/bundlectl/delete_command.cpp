#include "arguments.h"
#include "command.h"
#include "exit_status.h"
#include "model/collection.h"
#include "model/installation.h"
#include "printable.h"
#include "removal_check.h"
#include "request_service.h"
#include "timeout_option.h"

#include <bundle_client.h>
#include <bundle_service.h>

#include <sys/stat.h>
#include <sys/types.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

using namespace SystemServer::BundleService;

struct Options {
    std::string name;
    std::string collection;
    std::string configuration;
    std::chrono::seconds timeout{30};
};

/// What can be said of the bundle's directory after the deletion.
struct Check {
    std::optional<RemovalCheck> removal;
    std::string obstacle; ///< why there is no check
};

/// Says on standard error what became of the bundle, and what to do about it.
int Failed(ExitStatus status, const Options& options, const std::string& text)
{
    std::cerr << "bundlectl: bundle \"" << Printable(options.name) << "\" " << text << '\n';
    return status;
}

/// The collection that is to be looked at, read before the deletion.
Model::Collection FindCollection(const Options& options, pid_t serving)
{
    if (!options.collection.empty()) {
        return Model::ReadCollection(options.collection, ".");
    }
    std::string configuration = options.configuration;
    std::string program;
    std::string base = ".";
    for (const Model::ServerProcess& server : Model::FindServers(Model::Proc())) {
        if (server.stat.pid == serving) {
            program = server.program.substr(0, server.program.rfind('/') + 1);
            base = server.directory.value_or(base);
            configuration = configuration.empty() ? server.configuration : configuration;
        }
    }
    const Model::ServerConfiguration settings = Model::ReadConfiguration(configuration, program);
    if (!settings.trouble.empty()) {
        Model::Collection unknown;
        unknown.trouble = settings.trouble;
        return unknown;
    }
    return Model::ReadCollection(settings.collection, base);
}

Check PrepareCheck(const Options& options, pid_t serving)
{
    const Model::Collection collection = FindCollection(options, serving);
    std::vector<std::string> directories;
    for (const Model::DeclaredBundle* const bundle : collection.Find(Printable(options.name))) {
        directories.push_back(bundle->path);
    }
    if (!directories.empty()) {
        return {RemovalCheck(directories), ""};
    }
    return {std::nullopt,
            collection.trouble.empty() ? "no manifest in " + collection.path + " has this name" : collection.trouble};
}

int TellDeleted(const Options& options, const Check& check)
{
    if (!check.removal) {
        std::cout << "bundle \"" << Printable(options.name)
                  << "\" is deleted. Whether its directory has gone is not known: " << Printable(check.obstacle)
                  << ". Name the collection with --collection or --config.\n"
                  << std::flush;
        return EXIT_DONE;
    }
    const std::string left = check.removal->Left();
    if (!left.empty()) {
        return Failed(EXIT_FAILED, options,
                      "is deleted, but its directory is not: " + left +
                          " cannot be removed. The next start of the server may load it again. Look for a mount point, "
                          "an immutable file (lsattr) or a read-only file system, and remove the directory.");
    }
    std::cout << "bundle \"" << Printable(options.name) << "\" is deleted.\n" << std::flush;
    return EXIT_DONE;
}

int TellAnswer(const Options& options, unsigned status, const Check& check)
{
    switch (status) {
    case STATUS_OK:
        return TellDeleted(options, check);
    case STATUS_BAD_REQUEST:
        return Failed(EXIT_FAILED, options,
                      "is not deleted, or only in part: the server could not stop, unload or remove it. "
                      "The server's log says why.");
    case STATUS_NOT_FOUND:
        return Failed(EXIT_UNKNOWN_BUNDLE, options,
                      "is not known to the server. The name to give is the one in the bundle's manifest, "
                      "not its directory's.");
    default:
        return Failed(EXIT_FAILED, options,
                      "may or may not be deleted: the server answered with the status " + std::to_string(status) +
                          ", which bundlectl does not know. The server's log says more.");
    }
}

/// What kept the answer away.
int TellNoAnswer(const Options& options, int code, int error)
{
    switch (code) {
    case BUNDLE_CLIENT_UNREACHABLE:
    case BUNDLE_CLIENT_SYSTEM:
        return Failed(EXIT_UNREACHABLE, options,
                      "is not deleted: no server can be reached at " + ServicePath() + " (" + std::strerror(error) +
                          "). Is bundle_server running, and are you its user or root?");
    case BUNDLE_CLIENT_CLOSED:
        return Failed(EXIT_UNREACHABLE, options,
                      "may not be deleted: the server closed the connection without a reply. It has ended, or serves "
                      "only its own user and root; its log says which.");
    case BUNDLE_CLIENT_TIMEOUT:
        return Failed(EXIT_TIMED_OUT, options,
                      "may still be on its way out: no answer within " + std::to_string(options.timeout.count()) +
                          " s. A script of a bundle can hold the server; look at its log, or give a longer --timeout.");
    default:
        return Failed(
            EXIT_FAILED, options,
            "may or may not be deleted: the server's answer is broken: " + std::string(bundle_client_text(code)) +
                ". Is " + ServicePath() + " held by a bundle server?");
    }
}

int Delete(const Options& options)
{
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + options.timeout;
    pid_t server = 0;
    int code = bundle_client_server(MillisecondsUntil(end), &server);
    if (code != BUNDLE_CLIENT_OK) {
        return TellNoAnswer(options, code, errno);
    }
    const Check check = PrepareCheck(options, server);
    std::string field = options.name;
    field.resize(NAME_FIELD_SIZE, '\0');
    unsigned status = 0;
    code = bundle_client_request(METHOD_DELETE_BUNDLE, field.data(), field.size(), MillisecondsUntil(end), &status);
    return code == BUNDLE_CLIENT_OK ? TellAnswer(options, status, check) : TellNoAnswer(options, code, errno);
}

std::string NameFault(const std::string& name)
{
    // The field on the wire ends with a NUL.
    constexpr std::size_t longest = NAME_FIELD_SIZE - 1;
    return name.empty() || name.size() > longest ? "a bundle's name has 1 to " + std::to_string(longest) + " bytes"
                                                 : "";
}

bool IsKind(const std::string& path, mode_t kind)
{
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && (status.st_mode & S_IFMT) == kind;
}

std::string FaultOfDirectory(const std::string& path)
{
    return IsKind(path, S_IFDIR) ? "" : "there is no directory " + Printable(path);
}

std::string FaultOfFile(const std::string& path)
{
    return IsKind(path, S_IFREG) ? "" : "there is no file " + Printable(path);
}

} // namespace

Action DefineDelete(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    Argument name{"NAME", "the bundle's name, as in its manifest"};
    name.check = NameFault;
    name.isRequired = true;
    arguments.Add(name, options->name);
    AddTimeout(arguments, "how long to wait for the answer", options->timeout);
    Argument collection{"--collection", "look there whether its directory has gone", "DIR", FaultOfDirectory};
    arguments.Add(collection, options->collection);
    Argument configuration{"--config", "look in the collection that this configuration names", "FILE", FaultOfFile};
    configuration.without = collection.names;
    arguments.Add(configuration, options->configuration);
    return [options] { return Delete(*options); };
}
