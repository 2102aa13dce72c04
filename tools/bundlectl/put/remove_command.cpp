#include "arguments.h"
#include "command.h"
#include "exit_status.h"
#include "model/collection.h"
#include "place.h"
#include "printable.h"
#include "request_service.h"
#include "run.h"
#include "tree.h"
#include "verdict.h"

#include <bundle_client.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <set>

namespace {

using namespace Put;

struct Options {
    CommonOptions common;
    std::string name;
    bool force = false;
};

/// The names, as in the log, of the bundles that require it directly or indirectly.
std::vector<std::string> DependantsOf(const std::string& collection, const std::string& name)
{
    const Model::Collection found = Model::ReadCollection(collection, "/");
    std::set<std::string> gone{Printable(name)};
    std::vector<std::string> dependants;
    for (bool isChanged = true; isChanged;) {
        isChanged = false;
        for (const Model::DeclaredBundle& bundle : found.bundles) {
            const bool requiresIt = std::any_of(bundle.required.begin(), bundle.required.end(),
                                                [&gone](const std::string& other) { return gone.count(other) != 0; });
            if (requiresIt && gone.insert(bundle.name).second) {
                dependants.push_back(bundle.name);
                isChanged = true;
            }
        }
    }
    return dependants;
}

std::string Joined(const std::vector<std::string>& names)
{
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

int RemoveByRequest(const Options& options, const std::string& path, Report& report)
{
    const std::string name = "\"" + Printable(options.name) + "\"";
    const int timeout = static_cast<int>(SpanOf(options.common.patience).count());
    const int result = ::bundle_client_delete(options.name.c_str(), timeout);
    switch (result) {
    case BUNDLE_CLIENT_OK:
        report.outcome = ExistsAt(path) ? "left" : "removed";
        report.text = ExistsAt(path) ? name + " is unloaded, but its directory " + Printable(path) +
                                           " is left. Look for a mount point or an immutable file (lsattr)."
                                     : name + " is removed.";
        return Tell(report, ExistsAt(path) ? EXIT_FAILED : EXIT_DONE, options.common.json);
    case BUNDLE_CLIENT_TIMEOUT:
        report.outcome = "timed-out";
        report.text = "no answer of the server in time: " + name + " may still be on its way out.";
        return Tell(report, EXIT_TIMED_OUT, options.common.json);
    case BUNDLE_CLIENT_FAILED:
        report.outcome = "failed";
        report.text = "the server could not remove " + name + ", or only in part. Its log says why.";
        return Tell(report, EXIT_FAILED, options.common.json);
    default:
        report.outcome = "unreachable";
        report.text = name + " is not removed: " + ::bundle_client_text(result) + ".";
        return Tell(report, EXIT_UNREACHABLE, options.common.json);
    }
}

int RunRemove(const Options& options)
{
    const Store store(CollectionOf(options.common.choice), Store::CHANGE);
    const StoreLock lock = LockStore(store, "remove " + options.name, options.common);
    Report report;
    report.verb = "remove";
    report.bundle = options.name;
    const auto placed = FindPlaced(store.Collection(), options.name);
    if (!placed) {
        report.outcome = "unknown-bundle";
        report.text = "there is no bundle \"" + Printable(options.name) + "\" in " + Printable(store.Collection()) +
                      "." + SimilarName(store.Collection(), options.name);
        return Tell(report, EXIT_UNKNOWN_BUNDLE, options.common.json);
    }
    const std::vector<std::string> dependants = DependantsOf(store.Collection(), options.name);
    if (!dependants.empty()) {
        report.details.push_back("These require it, and will not start without it: " + Joined(dependants) + ".");
        if (!options.force) {
            throw Refusal("\"" + Printable(options.name) + "\" is required by " + Joined(dependants) +
                          ". Remove these first, or use --force: they go on until the server starts again.");
        }
    }
    const std::string path = store.Collection() + "/" + placed->directory;
    if (FindServerOf(store.Collection(), options.common.choice).server) {
        return RemoveByRequest(options, path, report);
    }
    Shelf shelf(store, placed->directory);
    shelf.Tidy();
    shelf.Withdraw();
    report.outcome = "removed";
    report.text = "\"" + Printable(options.name) +
                  "\" is removed. No server runs, so its uninstall.sh has not run. "
                  "bundlectl rollback brings it back.";
    return Tell(report, EXIT_DONE, options.common.json);
}

} // namespace

Action DefineRemove(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    Argument name{"NAME", "the bundle's name, as in its manifest"};
    name.isRequired = true;
    arguments.Add(name, options->name);
    arguments.AddFlag("--force", "although other bundles require it", options->force);
    AddCommonOptions(arguments, options->common);
    return [options] {
        return Guarded("remove", options->name, options->common.json, [&] { return RunRemove(*options); });
    };
}
