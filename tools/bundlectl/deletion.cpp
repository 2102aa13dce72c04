#include "deletion.h"

#include "model/collection.h"
#include "model/installation.h"
#include "printable.h"
#include "removal_check.h"
#include "request_service.h"
#include "suggestion.h"

#include <bundle_client.h>
#include <bundle_service.h>

#include <sys/types.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace SystemServer::BundleService;

using Options = DeletionOrder;

/// What is known about the bundle's directory after the deletion.
struct Check {
    std::optional<RemovalCheck> removal;
    std::string obstacle; ///< why the directory cannot be checked
    std::string nearest;  ///< the most likely bundle if the name is mistyped; empty: none
};

DeletionResult Told(ExitStatus status, const Options& options, const std::string& text)
{
    return {status, "bundle \"" + Printable(options.name) + "\" " + text};
}

/// The collection to check, read before the deletion.
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
        return {RemovalCheck(directories), "", ""};
    }
    std::vector<std::string_view> names;
    for (const Model::DeclaredBundle& bundle : collection.bundles) {
        names.emplace_back(bundle.name);
    }
    return {std::nullopt,
            collection.trouble.empty() ? "no manifest in " + collection.path + " has this name" : collection.trouble,
            std::string(Nearest(Printable(options.name), names))};
}

DeletionResult TellDeleted(const Options& options, const Check& check)
{
    if (!check.removal) {
        return Told(EXIT_DONE, options,
                    "is deleted. Whether its directory has gone is not known: " + Printable(check.obstacle) +
                        ". Name the collection with --collection or --config.");
    }
    const std::string left = check.removal->Left();
    if (!left.empty()) {
        return Told(EXIT_FAILED, options,
                    "is deleted, but its directory is not: " + left +
                        " cannot be removed. The next start of the server may load it again. Look for a mount point, "
                        "an immutable file (lsattr) or a read-only file system, and remove the directory.");
    }
    return Told(EXIT_DONE, options, "is deleted.");
}

DeletionResult Refused(DeletionResult result)
{
    result.isRefused = true;
    return result;
}

DeletionResult TellAnswer(const Options& options, unsigned status, const Check& check)
{
    switch (status) {
    case STATUS_OK:
        return TellDeleted(options, check);
    case STATUS_BAD_REQUEST:
        return Refused(Told(EXIT_FAILED, options,
                            "is not deleted, or only in part: the server could not stop, unload or remove it. "
                            "The server's log says why."));
    case STATUS_NOT_FOUND:
        return Told(EXIT_UNKNOWN_BUNDLE, options,
                    check.nearest.empty()
                        ? "is not known to the server. The name to give is the one in the bundle's manifest, "
                          "not its directory's."
                        : "is not known to the server. Did you mean \"" + check.nearest + "\"?");
    default:
        return Told(EXIT_FAILED, options,
                    "may or may not be deleted: the server answered with the status " + std::to_string(status) +
                        ", which bundlectl does not know. The server's log says more.");
    }
}

/// Why the answer did not come.
DeletionResult TellNoAnswer(const Options& options, int code, int error)
{
    switch (code) {
    case BUNDLE_CLIENT_UNREACHABLE:
    case BUNDLE_CLIENT_SYSTEM:
        return Told(EXIT_UNREACHABLE, options,
                    "is not deleted: no server can be reached at " + ServicePath() + " (" + std::strerror(error) +
                        "). Is bundle_server running, and are you its user or root?");
    case BUNDLE_CLIENT_CLOSED:
        return Told(EXIT_UNREACHABLE, options,
                    "may not be deleted: the server closed the connection without a reply. It has ended, or serves "
                    "only its own user and root; its log says which.");
    case BUNDLE_CLIENT_TIMEOUT:
        return Told(EXIT_TIMED_OUT, options,
                    "may still be on its way out: no answer within " + std::to_string(options.timeout.count()) +
                        " s. A script of a bundle can hold the server; look at its log, or give a longer --timeout.");
    default:
        return Told(EXIT_FAILED, options,
                    "may or may not be deleted: the server's answer is broken: " +
                        std::string(bundle_client_text(code)) + ". Is " + ServicePath() + " held by a bundle server?");
    }
}

} // namespace

DeletionResult DeleteBundle(const DeletionOrder& order)
{
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + order.timeout;
    pid_t server = 0;
    int code = bundle_client_server(MillisecondsUntil(end), &server);
    if (code != BUNDLE_CLIENT_OK) {
        return TellNoAnswer(order, code, errno);
    }
    const Check check = PrepareCheck(order, server);
    std::string field = order.name;
    field.resize(NAME_FIELD_SIZE, '\0');
    unsigned status = 0;
    code = bundle_client_request(METHOD_DELETE_BUNDLE, field.data(), field.size(), MillisecondsUntil(end), &status);
    return code == BUNDLE_CLIENT_OK ? TellAnswer(order, status, check) : TellNoAnswer(order, code, errno);
}
