// Runs a function of a dynamic library in a process of its own. In process mode the bundle server runs it for each
// library item. One of these stays in memory for each such item, so it does as little as possible.
#include "tools/version.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <string_view>

namespace {

constexpr int EXIT_NOT_LOADED = 1;
constexpr int EXIT_WRONG_USAGE = 64;

constexpr char USAGE[] =
    "usage: dyn_lib_process_loader -f LIBRARY -e FUNCTION\n"
    "\n"
    "Opens the dynamic library, calls its function, which takes no arguments and returns an int,\n"
    "and exits with what it returned.\n"
    "\n"
    "  -f LIBRARY   the library's path\n"
    "  -e FUNCTION  the function's name\n"
    "  -h           print this and exit\n"
    "  --version    print the version and exit\n"
    "\n"
    "exit status, where it is not the function's: 1 the library does not open or lacks the function,\n"
    "64 wrong usage\n";

struct Arguments {
    const char* library = nullptr;
    const char* function = nullptr;
    bool helpIsAsked = false;
};

bool IsGiven(const char* argument)
{
    return argument != nullptr && *argument != '\0';
}

/// False when the arguments do not match the usage.
bool Read(int argc, char** argv, Arguments& arguments)
{
    for (int option = 0; (option = ::getopt(argc, argv, "f:e:h")) != -1;) {
        switch (option) {
        case 'f':
            arguments.library = optarg;
            break;
        case 'e':
            arguments.function = optarg;
            break;
        case 'h':
            arguments.helpIsAsked = true;
            return true;
        default:
            return false;
        }
    }
    // dlopen would open this program itself for an empty name.
    return optind == argc && IsGiven(arguments.library) && IsGiven(arguments.function);
}

int NotLoaded(const Arguments& arguments)
{
    const char* reason = ::dlerror();
    static_cast<void>(std::fprintf(stderr, "dyn_lib_process_loader: function %s of library %s cannot be called: %s\n",
                                   arguments.function, arguments.library,
                                   reason != nullptr ? reason : "its address is null"));
    return EXIT_NOT_LOADED;
}

int Run(const Arguments& arguments)
{
    // The library is never closed, because threads and exit handlers of the function may still run its code.
    void* library = ::dlopen(arguments.library, RTLD_LAZY);
    if (library == nullptr) {
        return NotLoaded(arguments);
    }
    void* address = ::dlsym(library, arguments.function);
    if (address == nullptr) {
        return NotLoaded(arguments);
    }
    return reinterpret_cast<int (*)()>(address)();
}

/// Prints to standard output. Returns the exit status.
int Tell(const char* text)
{
    return std::fputs(text, stdout) >= 0 && std::fflush(stdout) == 0 ? 0 : EXIT_NOT_LOADED;
}

int TellVersion()
{
    static_cast<void>(std::fputs("dyn_lib_process_loader ", stdout));
    static_cast<void>(std::fputs(TOOL_VERSION, stdout));
    return Tell("\n");
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::string_view(argv[1]) == "--version") {
        return TellVersion();
    }
    Arguments arguments;
    if (!Read(argc, argv, arguments)) {
        static_cast<void>(std::fputs(USAGE, stderr));
        return EXIT_WRONG_USAGE;
    }
    if (arguments.helpIsAsked) {
        return Tell(USAGE);
    }
    return Run(arguments);
}
