#include "command.h"
#include "exit_status.h"
#include "printable.h"
#include "service_client.h"

#include <bundle_service.h>

#include <CLI/CLI.hpp>

#include <chrono>
#include <iostream>
#include <memory>
#include <string>

namespace {

using namespace SystemServer::BundleService;

constexpr int DEFAULT_TIMEOUT = 30;
constexpr int LONGEST_TIMEOUT = 86400;

struct Options {
    std::string name;
    int timeout = DEFAULT_TIMEOUT;
};

/// Says on standard error what became of the bundle, and what to do about it.
int Failed(ExitStatus status, const Options& options, const std::string& text)
{
    std::cerr << "bundlectl: bundle \"" << Printable(options.name) << "\" " << text << '\n';
    return status;
}

int TellAnswer(const Options& options, std::uint16_t status)
{
    switch (status) {
    case STATUS_OK:
        std::cout << "bundle \"" << Printable(options.name) << "\" is deleted.\n" << std::flush;
        return EXIT_DONE;
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

int Delete(const Options& options)
{
    std::string field = options.name;
    field.resize(NAME_FIELD_SIZE, '\0');
    ServiceClient client(SERVICE_NAME);
    switch (client.Ask(METHOD_DELETE_BUNDLE, field, std::chrono::seconds(options.timeout))) {
    case ServiceClient::Outcome::ANSWERED:
        return TellAnswer(options, client.Reply().header.status);
    case ServiceClient::Outcome::UNREACHABLE:
        return Failed(EXIT_UNREACHABLE, options,
                      "is not deleted: no server can be reached at " + client.Path() + " (" + client.Reason() +
                          "). Is bundle_server running, and are you its user or root?");
    case ServiceClient::Outcome::CLOSED:
        return Failed(EXIT_UNREACHABLE, options,
                      "may not be deleted: the server closed the connection without a reply. It has ended, or serves "
                      "only its own user and root; its log says which.");
    case ServiceClient::Outcome::NO_ANSWER:
        return Failed(EXIT_NO_ANSWER, options,
                      "may still be on its way out: no answer within " + std::to_string(options.timeout) +
                          " s. A script of a bundle can hold the server; look at its log, or give a longer --timeout.");
    case ServiceClient::Outcome::BROKEN:
        break;
    }
    return Failed(EXIT_FAILED, options,
                  "may or may not be deleted: the server's answer is broken: " + client.Reason() + ". Is " +
                      client.Path() + " held by a bundle server?");
}

std::string NameFault(const std::string& name)
{
    // The field on the wire ends with a NUL.
    constexpr std::size_t longest = NAME_FIELD_SIZE - 1;
    return name.empty() || name.size() > longest ? "a bundle's name has 1 to " + std::to_string(longest) + " bytes"
                                                 : "";
}

} // namespace

Action DefineDelete(CLI::App& command)
{
    const auto options = std::make_shared<Options>();
    command.add_option("NAME", options->name, "the bundle's name, as in its manifest")->required()->check(NameFault);
    command.add_option("--timeout", options->timeout, "how long to wait for the answer, in seconds")
        ->check(CLI::Range(1, LONGEST_TIMEOUT))
        ->capture_default_str()
        ->type_name("SECONDS");
    return [options] { return Delete(*options); };
}
