#include "place.h"

#include "arguments.h"
#include "lint/subject.h"
#include "model/collection.h"
#include "model/files.h"
#include "model/log_time.h"
#include "printable.h"
#include "suggestion.h"

#include <algorithm>
#include <iostream>
#include <string_view>
#include <vector>

namespace Put {

void AddPlaceOptions(Arguments& arguments, CommonOptions& options)
{
    arguments.Add({"--collection", "the collection, in place of the server's", "DIR"}, options.choice.collection);
    arguments.Add({"--config", "the configuration of the server that is meant", "FILE"}, options.choice.configuration);
    arguments.Add({"--log", "the log: a file, or journal[:UNIT]", "FILE"}, options.choice.log);
    arguments.AddFlag("--json", "print JSON, for programs", options.json);
}

void AddCommonOptions(Arguments& arguments, CommonOptions& options)
{
    AddPlaceOptions(arguments, options);
    Argument wait{"--wait", "how long to wait for others, and then for the server", "TIME", FaultOfSpan};
    wait.standard = options.patience;
    arguments.Add(wait, options.patience);
}

std::chrono::milliseconds SpanOf(const std::string& text)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
        Model::ParseSpan(text).value_or(Model::Microseconds(0)));
}

std::string FaultOfSpan(const std::string& text)
{
    const auto span = Model::ParseSpan(text);
    return span && *span <= std::chrono::hours(24)
               ? ""
               : "\"" + Printable(text) + "\" is no time up to 24h, such as 500ms, 30s or 5m";
}

std::string CollectionOf(const Model::Choice& choice)
{
    const Model::Installation installation = Model::FindInstallation(choice, Model::Proc());
    if (installation.collection.empty()) {
        throw Refusal(
            "no server runs, and there is no installed configuration: name the collection with --collection.");
    }
    return Model::AbsolutePath(installation.base, installation.collection);
}

std::optional<Placed> FindPlaced(const std::string& collection, const std::string& name)
{
    auto names = Model::ListDirectory(collection).value_or(std::vector<std::string>());
    std::sort(names.begin(), names.end());
    for (const std::string& directory : names) {
        const std::string path = collection + "/" + directory;
        Lint::Report ignored;
        const Lint::Subject bundle = Lint::ReadSubject(path, ignored);
        if (bundle.isRead && bundle.name == name) {
            return Placed{name, directory, bundle.mode};
        }
    }
    return std::nullopt;
}

std::string SimilarName(const std::string& collection, const std::string& name)
{
    const Model::Collection found = Model::ReadCollection(collection, "/");
    std::vector<std::string_view> names;
    for (const Model::DeclaredBundle& bundle : found.bundles) {
        names.emplace_back(bundle.name);
    }
    return DidYouMean(Printable(name), names);
}

StoreLock LockStore(const Store& store, const std::string& what, const CommonOptions& options)
{
    return StoreLock(store, what, SpanOf(options.patience), [](const std::string& who) {
        std::cerr << "bundlectl: waiting for another one: " << who << ".\n" << std::flush;
    });
}

} // namespace Put
