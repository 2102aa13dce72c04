#include "trial_bundles.h"

#include "model/collection.h"
#include "model/files.h"
#include "printable.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

namespace Trials {

namespace {

namespace fs = std::filesystem;

constexpr const char MANIFEST[] = "BundleManifest.ini";

/// A directory name that is not in use.
std::string FreePath(const std::string& collection, const std::string& name)
{
    std::string path = collection + "/" + name;
    for (int number = 2; fs::exists(path); ++number) {
        path = collection + "/" + name + "-" + std::to_string(number);
    }
    return path;
}

void WriteStub(const std::string& collection, const std::string& name)
{
    const std::string path = FreePath(collection, "stub");
    fs::create_directories(path);
    std::ofstream manifest(path + "/" + MANIFEST);
    manifest << "[global]\nbundle_name = " << name << "\nbundle_load_mode = 0\n";
}

/// The required bundles that are missing.
std::set<std::string> Missing(const std::string& path)
{
    const Model::Collection collection = Model::ReadCollection(path, "/");
    std::set<std::string> missing;
    for (const Model::DeclaredBundle& bundle : collection.bundles) {
        for (const std::string& name : bundle.required) {
            // A manifest cannot contain a name that the log shows with an escape.
            if (collection.Find(name).empty() && name.find('\\') == std::string::npos) {
                missing.insert(name);
            }
        }
    }
    return missing;
}

} // namespace

std::string TrialBundles::WithSources(std::string text) const
{
    for (const auto& [copy, source] : sources) {
        for (std::size_t at = text.find(copy); at != std::string::npos; at = text.find(copy, at + source.size())) {
            text.replace(at, copy.size(), Printable(source));
        }
    }
    return text;
}

std::string FaultOfBundle(const std::string& directory)
{
    struct stat status {};
    if (::stat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        return Printable(directory) + " is no directory. Name the directory of a bundle.";
    }
    if (::stat((directory + "/" + MANIFEST).c_str(), &status) != 0) {
        return Printable(directory) + " is no bundle: it has no " + MANIFEST + ".";
    }
    return {};
}

TrialBundles CopyBundles(const std::vector<std::string>& directories, const std::string& collection)
{
    TrialBundles bundles;
    bundles.collection = collection;
    fs::create_directories(collection);
    for (const std::string& directory : directories) {
        const std::string source = Model::RealPath(directory);
        const std::string copy = FreePath(collection, Model::BaseName(source));
        fs::copy(source, copy, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        bundles.sources[copy] = source;
    }
    for (const std::string& name : Missing(collection)) {
        WriteStub(collection, name);
        bundles.stubs.push_back(name);
    }
    return bundles;
}

} // namespace Trials
