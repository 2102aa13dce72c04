#include "places.h"

#include "arguments.h"
#include "exit_status.h"
#include "printable.h"
#include "suggestion.h"

#include <iostream>
#include <string_view>

namespace Verbs {

namespace {

bool EndsWith(const std::string& text, const std::string& ending)
{
    return text.size() >= ending.size() && text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

} // namespace

void AddPlaces(Arguments& arguments, Model::Choice& choice)
{
    arguments.Add({"--config", "the configuration of the server that is meant", "FILE"}, choice.configuration);
    arguments.Add({"--collection", "the collection, in place of the server's", "DIR"}, choice.collection);
    arguments.Add({"--log", "the log: a file, \"-\" for standard input, or journal[:UNIT]", "FILE"}, choice.log);
}

void AddJson(Arguments& arguments, bool& json)
{
    arguments.AddFlag("--json", "print JSON, for programs", json);
}

void AddName(Arguments& arguments, std::string& name, bool isRequired)
{
    Argument argument{"NAME", "the bundle's name, as in its manifest"};
    argument.isRequired = isRequired;
    arguments.Add(argument, name);
}

std::string FaultOfTime(const std::string& text)
{
    return Model::ParsePointInTime(text, Model::Now())
               ? ""
               : "\"" + text + "\" is no time such as 10m, 2h, 14:05 or 2026-11-21T04:14:09Z";
}

void TellNotes(const std::vector<std::string>& notes)
{
    for (const std::string& note : notes) {
        std::cerr << "bundlectl: " << Printable(note) << '\n';
    }
}

int Print(const std::string& text, int status)
{
    std::cout << text << std::flush;
    if (std::cout.good()) {
        return status;
    }
    std::cerr << "bundlectl: standard output takes no more.\n";
    return EXIT_FAILED;
}

std::vector<const Model::BundleStatus*> FindByName(const std::vector<Model::BundleStatus>& bundles,
                                                   const std::string& name)
{
    std::vector<const Model::BundleStatus*> found;
    const std::string directory = "/" + name.substr(0, name.find_last_not_of('/') + 1);
    for (const Model::BundleStatus& bundle : bundles) {
        const bool isNamed = !bundle.name.empty() && bundle.name == Printable(name);
        if (isNamed || (bundle.name.empty() && EndsWith(bundle.path, directory))) {
            found.push_back(&bundle);
        }
    }
    return found;
}

int TellUnknown(const std::string& name, const Model::Snapshot& snapshot,
                const std::vector<Model::BundleStatus>& bundles)
{
    if (!snapshot.IsCollectionRead()) {
        return EXIT_UNREACHABLE;
    }
    std::vector<std::string_view> names;
    names.reserve(bundles.size());
    for (const Model::BundleStatus& bundle : bundles) {
        names.emplace_back(bundle.name.empty() ? DirectoryName(bundle) : std::string_view(bundle.name));
    }
    const std::string_view nearest = Nearest(Printable(name), names);
    std::cerr << "bundlectl: there is no bundle \"" << Printable(name) << "\". ";
    if (nearest.empty()) {
        std::cerr << "bundlectl status lists those that there are. The name is the one in the manifest, not the "
                     "directory's.\n";
    } else {
        std::cerr << "Did you mean \"" << nearest << "\"?\n";
    }
    return EXIT_UNKNOWN_BUNDLE;
}

std::string_view DirectoryName(const Model::BundleStatus& bundle)
{
    return std::string_view(bundle.path).substr(bundle.path.rfind('/') + 1);
}

std::string NameToShow(const Model::BundleStatus& bundle)
{
    return bundle.name.empty() ? std::string(DirectoryName(bundle)) + "/" : bundle.name;
}

std::string NameOfMode(int mode)
{
    return mode == 0 ? "process" : mode == 1 ? "thread" : std::to_string(mode);
}

} // namespace Verbs
