#include "command_line.h"

#include "completion.h"
#include "exit_status.h"
#include "other_program.h"
#include "printable.h"
#include "suggestion.h"
#include "tools/version.h"

// The only source that includes the library which reads command lines: each further one would hold a part of it once
// more, and bundlectl must fit small devices.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <csignal>
#include <exception>
#include <iostream>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

std::string TellStatuses()
{
    std::string text = "exit status: ";
    for (const ExitStatusMeaning& meaning : EXIT_STATUSES) {
        text += std::to_string(meaning.status) + " " + meaning.meaning +
                (&meaning == std::end(EXIT_STATUSES) - 1 ? "" : "; ");
    }
    return text;
}

std::string TellExamples(std::string examples)
{
    for (std::size_t end = examples.find('\n'); end != std::string::npos; end = examples.find('\n', end + 1)) {
        examples.insert(end + 1, "  ");
    }
    return "examples:\n  " + examples + "\n\n" + TellStatuses();
}

int TellUnknown(std::string_view word)
{
    std::vector<std::string_view> names;
    for (const Verb& verb : VERBS) {
        names.emplace_back(verb.name);
    }
    std::cerr << "bundlectl: there is no command \"" << Printable(word) << "\". ";
    const std::string_view nearest = Nearest(word, names);
    if (!nearest.empty()) {
        std::cerr << "Did you mean \"" << nearest << "\"?\n";
        return EXIT_USAGE;
    }
    std::cerr << "The commands are: ";
    for (const std::string_view name : names) {
        std::cerr << name << (name == names.back() ? ".\n" : ", ");
    }
    return EXIT_USAGE;
}

void AddTo(CLI::App& part, const DeclaredArgument& declared)
{
    const Argument& argument = declared.argument;
    if (declared.isFlag) {
        part.add_flag_callback(
            argument.names, [&declared] { declared.take(""); }, argument.description);
        return;
    }
    const auto take = [&declared](const CLI::results_t& values) {
        std::for_each(values.begin(), values.end(), declared.take);
        return true;
    };
    CLI::Option& option = *part.add_option(argument.names, take, argument.description);
    option.required(argument.isRequired);
    if (declared.isList) {
        option.expected(1, CLI::detail::expected_max_vector_size)->allow_extra_args();
    }
    if (*argument.type != '\0') {
        option.type_name(argument.type);
    }
    if (!argument.standard.empty()) {
        option.default_str(argument.standard);
    }
    if (argument.check) {
        option.check(argument.check);
    }
    if (*argument.without != '\0') {
        option.excludes(part.get_option(argument.without));
    }
}

/// What one verb needs while the command line is read.
struct Part {
    Arguments arguments;
    Action action;
};

int Read(const Commands& commands, const Verb* verb, int argc, const char* const* argv)
{
    CLI::App program("Controls the bundle server of this machine.", "bundlectl");
    program.require_subcommand(1);
    program.set_version_flag("--version", std::string("bundlectl ") + TOOL_VERSION, "print the version and exit");
    program.footer(TellStatuses());
    Part part;
    for (const Verb& listed : VERBS) {
        CLI::App& section = *program.add_subcommand(listed.name, listed.description);
        if (&listed == verb) {
            part.action = commands.Find(verb->name)(part.arguments);
            section.footer(TellExamples(verb->examples));
            for (const DeclaredArgument& declared : part.arguments.All()) {
                AddTo(section, declared);
            }
        }
    }
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return program.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
    }
    return part.action ? part.action() : EXIT_USAGE;
}

int Run(const Commands& commands, int argc, char** argv)
{
    const std::string_view word = argc > 1 ? argv[1] : "-";
    if (word == COMPLETION_OPTION) {
        return Complete(commands, argc, argv);
    }
    const Verb* const verb = FindVerb(word);
    if (verb == nullptr && word.substr(0, 1) != "-") {
        return TellUnknown(word);
    }
    if (verb != nullptr && verb->program != commands.program) {
        return RunOtherProgram(verb->program, argv);
    }
    return Read(commands, verb, argc, argv);
}

// The framework's library blocks it when it is loaded; this program ends like any other when a pipe's reader ends.
void UnblockBrokenPipe()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    ::sigprocmask(SIG_UNBLOCK, &signals, nullptr);
}

} // namespace

const Verb* FindVerb(std::string_view name)
{
    const auto* const found =
        std::find_if(std::begin(VERBS), std::end(VERBS), [name](const Verb& verb) { return verb.name == name; });
    return found == std::end(VERBS) ? nullptr : found;
}

Definition Commands::Find(std::string_view name) const
{
    const auto* const found =
        std::find_if(begin(), end(), [name](const Command& command) { return command.name == name; });
    return found == end() ? nullptr : found->define;
}

int RunProgram(const Commands& commands, int argc, char** argv)
{
    try {
        UnblockBrokenPipe();
        return Run(commands, argc, argv);
    } catch (const std::exception& exception) {
        std::cerr << "bundlectl: " << exception.what() << '\n';
        return EXIT_FAILED;
    }
}
