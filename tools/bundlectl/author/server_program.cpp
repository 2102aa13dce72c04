#include "server_program.h"

#include "model/files.h"
#include "printable.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <vector>

namespace Trials {

namespace {

constexpr const char SERVER[] = "bundle_server";
constexpr const char LOADER[] = "dyn_lib_process_loader";

bool IsProgram(const std::string& path)
{
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

std::string DirectoryOf(const std::string& file)
{
    return file.substr(0, file.rfind('/') + 1);
}

/// The first directory that contains the program; empty when none does.
std::string FindIn(const std::vector<std::string>& directories, const char* program)
{
    for (const std::string& directory : directories) {
        if (!directory.empty() && IsProgram(directory + "/" + program)) {
            return directory;
        }
    }
    return {};
}

std::vector<std::string> SearchPath()
{
    const char* const value = std::getenv("PATH");
    std::istringstream path(value == nullptr ? "" : value);
    std::vector<std::string> directories;
    for (std::string directory; std::getline(path, directory, ':');) {
        directories.push_back(directory);
    }
    // The paths of users other than root often lack these.
    directories.insert(directories.end(), {"/usr/local/sbin", "/usr/sbin"});
    return directories;
}

} // namespace

ServerPrograms FindServerPrograms(const std::string& server, const std::string& loader)
{
    const std::string own = DirectoryOf(Model::ReadLink("/proc/self/exe").value_or(""));
    ServerPrograms found;
    if (!server.empty()) {
        found.server = IsProgram(server) ? Model::RealPath(server) : "";
        found.advice = Printable(server) + " is no program.";
    } else {
        std::vector<std::string> places{own, own + BUNDLECTL_SERVERS};
        const std::vector<std::string> path = SearchPath();
        places.insert(places.end(), path.begin(), path.end());
        const std::string directory = FindIn(places, SERVER);
        found.server = directory.empty() ? "" : Model::RealPath(directory + "/" + SERVER);
        found.advice =
            "There is no program bundle_server beside this one or in PATH. Install the package bundle-server, or "
            "name the program with --server.";
    }
    const std::string beside = DirectoryOf(found.server);
    found.loaderDirectory =
        Model::RealPath(loader.empty() ? FindIn({own, beside, beside + BUNDLECTL_LOADERS}, LOADER) : loader);
    return found;
}

} // namespace Trials
