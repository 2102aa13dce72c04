// The companion of the bundle server, for people and scripts.
#include "arguments.h"
#include "command.h"
#include "exit_status.h"
#include "printable.h"
#include "suggestion.h"
#include "tools/version.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <csignal>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr const char STATUSES[] =
    "exit status: 0 good, 1 failed or not healthy, 2 wrong use, 3 no such bundle, 4 cannot be reached, 5 timed out";

int TellUnknown(std::string_view word, const std::vector<std::string_view>& commands)
{
    std::cerr << "bundlectl: there is no command \"" << Printable(word) << "\". ";
    const std::string_view nearest = Nearest(word, commands);
    if (!nearest.empty()) {
        std::cerr << "Did you mean \"" << nearest << "\"?\n";
        return EXIT_WRONG_USE;
    }
    std::cerr << "The commands are: ";
    for (const std::string_view command : commands) {
        std::cerr << command << (command == commands.back() ? ".\n" : ", ");
    }
    return EXIT_WRONG_USE;
}

// The framework's library blocks it when it is loaded; the end of a pipe's reader is to end this program as any other.
void UnblockBrokenPipe()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    ::sigprocmask(SIG_UNBLOCK, &signals, nullptr);
}

int Run(int argc, const char* const* argv)
{
    CLI::App program("Controls the bundle server of this machine.", "bundlectl");
    program.require_subcommand(1);
    program.set_version_flag("--version", std::string("bundlectl ") + TOOL_VERSION, "print the version and exit");
    program.footer(STATUSES);

    int status = EXIT_FAILED;
    std::vector<std::string_view> names;
    for (const Command& command : COMMANDS) {
        names.emplace_back(command.name);
        CLI::App* part = program.add_subcommand(command.name, command.description);
        part->footer(std::string(command.examples) + (*command.examples == '\0' ? "" : "\n") + STATUSES);
        Arguments arguments(*part);
        part->callback([&status, action = command.define(arguments)] { status = action(); });
    }
    const std::string_view word = argc > 1 ? argv[1] : "-";
    if (word.substr(0, 1) != "-" && std::find(names.begin(), names.end(), word) == names.end()) {
        return TellUnknown(word, names);
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
        UnblockBrokenPipe();
        return Run(argc, argv);
    } catch (const std::exception& exception) {
        std::cerr << "bundlectl: " << exception.what() << '\n';
        return EXIT_FAILED;
    }
}
