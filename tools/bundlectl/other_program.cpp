#include "other_program.h"

#include "exit_status.h"
#include "printable.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <iostream>
#include <iterator>
#include <string>

namespace {

/// The directory of this program's file; empty: unknown.
std::string OwnDirectory()
{
    std::string path(PATH_MAX, '\0');
    const ssize_t size = ::readlink("/proc/self/exe", path.data(), path.size());
    path.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return path.substr(0, path.rfind('/') + 1);
}

} // namespace

int RunOtherProgram(Program program, char** argv)
{
    const auto* const place = std::find_if(std::begin(PROGRAMS), std::end(PROGRAMS),
                                           [program](const ProgramPlace& other) { return other.program == program; });
    const std::string directory = OwnDirectory();
    // Beside this program in a build directory, otherwise in the helpers' directory. That path is relative to the
    // programs, because the whole installation may have been moved.
    for (const char* const folder : {"", BUNDLECTL_HELPERS}) {
        ::execv((directory + folder + place->file).c_str(), argv);
        if (errno != ENOENT && errno != ENOTDIR) {
            std::cerr << "bundlectl: " << Printable(directory + folder) << place->file
                      << " cannot be run: " << std::strerror(errno) << ".\n";
            return EXIT_FAILED;
        }
    }
    std::cerr << "bundlectl: \"" << Printable(argv[1]) << "\" is not installed on this machine: " << place->advice
              << ".\n";
    return EXIT_FAILED;
}
