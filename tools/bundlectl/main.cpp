// The companion of the bundle server, for people and scripts.
#include "command.h"
#include "exit_status.h"
#include "tools/version.h"

#include <CLI/CLI.hpp>

#include <exception>
#include <iostream>
#include <string>

namespace {

int Run(int argc, const char* const* argv)
{
    CLI::App program("Controls the bundle server of this machine.", "bundlectl");
    program.require_subcommand(1);
    program.set_version_flag("--version", std::string("bundlectl ") + TOOL_VERSION, "print the version and exit");
    program.footer("exit status: 0 done, 1 failed, 2 wrong use, 3 no such bundle, 4 cannot be reached, 5 no answer");

    int status = EXIT_FAILED;
    for (const Command& command : COMMANDS) {
        CLI::App* part = program.add_subcommand(command.name, command.description);
        part->callback([&status, action = command.define(*part)] { status = action(); });
    }
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return program.exit(error) == 0 ? EXIT_DONE : EXIT_WRONG_USE;
    }
    return status;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return Run(argc, argv);
    } catch (const std::exception& exception) {
        std::cerr << "bundlectl: " << exception.what() << '\n';
        return EXIT_FAILED;
    }
}
