#include "arguments.h"
#include "command.h"
#include "deletion.h"
#include "exit_status.h"
#include "forced_rest.h"
#include "model/status.h"
#include "output/json_writer.h"
#include "printable.h"
#include "timeout_option.h"
#include "verbs/places.h"

#include <bundle_service.h>

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    std::vector<std::string> names;
    std::string collection;
    Model::Choice choice; ///< separate, because its collection is only read
    std::chrono::seconds timeout{30};
    bool wait = false;
    bool force = false;
    bool json = false;
};

/// Whether a process of the bundle or its directory still exists.
bool IsThere(const std::string& name, const Model::Choice& choice)
{
    const auto snapshot = Model::TakeSnapshot(choice, Model::LogDepth::SERVER);
    const auto isOfBundle = [&name](const Model::BundleProcess& process) { return process.bundle == Printable(name); };
    return !snapshot->collection.Find(Printable(name)).empty() ||
           std::any_of(snapshot->processes.begin(), snapshot->processes.end(), isOfBundle);
}

DeletionResult AwaitTheEnd(const std::string& name, const Options& options, DeletionResult result,
                           Clock::time_point end)
{
    constexpr std::chrono::milliseconds interval{200};
    while (IsThere(name, options.choice)) {
        if (Clock::now() >= end) {
            return {EXIT_TIMED_OUT, "bundle \"" + Printable(name) +
                                        "\" is deleted, but its directory or a process of it is still there after " +
                                        std::to_string(options.timeout.count()) +
                                        " s. bundlectl orphans lists the latter."};
        }
        std::this_thread::sleep_for(interval);
    }
    return result;
}

DeletionResult Delete(const std::string& name, const Options& options)
{
    const Clock::time_point end = Clock::now() + options.timeout;
    const DeletionOrder order{name, options.collection, options.choice.configuration, options.timeout};
    DeletionResult result;
    std::string made;
    if (options.force) {
        const std::string trouble = LetItemsRest(name, options.choice, options.timeout, made);
        if (!trouble.empty()) {
            return {EXIT_FAILED, "bundle \"" + Printable(name) + "\" is not deleted: " + trouble};
        }
    }
    result = DeleteBundle(order);
    // The exchanged programs are a change, and the server may just be handling it.
    while (options.force && result.isRefused && Clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        result = DeleteBundle(order);
    }
    // When a bundle's directory has gone, the server tries repeatedly to unload the bundle. It may have succeeded by
    // itself.
    if (!made.empty() && result.status == EXIT_UNKNOWN_BUNDLE) {
        std::error_code error;
        std::filesystem::remove_all(made, error);
        result = {EXIT_DONE, "bundle \"" + Printable(name) + "\" is deleted."};
    }
    return options.wait && result.status == EXIT_DONE ? AwaitTheEnd(name, options, result, end) : result;
}

int DeleteAll(const Options& options)
{
    int status = EXIT_DONE;
    Output::JsonWriter json;
    json.BeginOutput("delete", Model::Now()).Key("bundles").BeginArray();
    for (const std::string& name : options.names) {
        const DeletionResult result = Delete(name, options);
        status = status == EXIT_DONE ? result.status : status;
        json.BeginObject().Member("name", Printable(name)).Member("deleted", result.status == EXIT_DONE);
        json.Member("exit_status", static_cast<int>(result.status)).Member("text", result.text).End();
        if (result.status != EXIT_DONE) {
            std::cerr << "bundlectl: " << result.text << '\n';
        } else if (!options.json) {
            std::cout << result.text << '\n' << std::flush;
        }
    }
    json.End().End();
    return options.json ? Verbs::Print(json.Text(), status) : status;
}

std::string NameFault(const std::string& name)
{
    // The field on the wire ends with a NUL.
    constexpr std::size_t longest = SystemServer::BundleService::NAME_FIELD_SIZE - 1;
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
    Argument name{"NAME", "the names of bundles, as in their manifests"};
    name.check = NameFault;
    name.isRequired = true;
    arguments.Add(name, options->names);
    AddTimeout(arguments, "how long to wait for each bundle", options->timeout);
    arguments.AddFlag("--wait", "wait until the directory and all its processes have gone", options->wait);
    arguments.AddFlag("--force", "let items rest first that die again and again", options->force);
    Argument collection{"--collection", "look there whether its directory has gone", "DIR", FaultOfDirectory};
    arguments.Add(collection, options->collection);
    Argument configuration{"--config", "look in the collection that this configuration names", "FILE", FaultOfFile};
    configuration.without = collection.names;
    arguments.Add(configuration, options->choice.configuration);
    arguments.Add({"--log", "the server's log, which tells when items rest", "FILE"}, options->choice.log);
    Verbs::AddJson(arguments, options->json);
    return [options] { return DeleteAll(*options); };
}
