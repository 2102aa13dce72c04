#include "command_line.h"

#include "completion.h"
#include "exit_status.h"
#include "other_program.h"
#include "printable.h"
#include "reading.h"
#include "suggestion.h"
#include "tools/version.h"

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
    std::string text;
    for (const ExitStatusMeaning& meaning : EXIT_STATUSES) {
        text += std::to_string(meaning.status) + " " + meaning.meaning +
                (&meaning == std::end(EXIT_STATUSES) - 1 ? "" : "; ");
    }
    return Wrapped("exit status: ", text, 4);
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

int TellProgram()
{
    Arguments arguments;
    std::string text = "Controls the bundle server of this machine.\nUsage: bundlectl COMMAND [OPTIONS]\n";
    text += TellArguments(arguments) + HelpLine("--version", "print the version and exit") + "\nCommands:\n";
    for (const Verb& verb : VERBS) {
        text += HelpLine(verb.name, verb.description);
    }
    std::cout << text << "\n" << TellStatuses() << std::endl;
    return EXIT_DONE;
}

int RunVerb(const Commands& commands, const Verb& verb, const std::vector<std::string>& words)
{
    Arguments arguments;
    const Action action = commands.Find(verb.name)(arguments);
    const Reading reading = ReadWords(arguments, words);
    if (reading.wantsHelp) {
        std::cout << verb.description << "\nUsage: bundlectl " << verb.name << " " << UsageOf(arguments) << "\n"
                  << TellArguments(arguments) << "\n"
                  << TellExamples(verb.examples) << std::endl;
        return EXIT_DONE;
    }
    if (!reading.fault.empty()) {
        std::cerr << "bundlectl " << verb.name << ": " << reading.fault << ". bundlectl " << verb.name
                  << " --help tells more.\n";
        return EXIT_USAGE;
    }
    return action();
}

/// Handles a word in a verb's place that is not a verb.
int TakeOwnOption(std::string_view word)
{
    if (word == "--version") {
        std::cout << "bundlectl " << TOOL_VERSION << std::endl;
        return EXIT_DONE;
    }
    if (word == "--help" || word == "-h") {
        return TellProgram();
    }
    std::cerr << "bundlectl: " << (word == "-" ? "a command is missing" : "there is no option " + Printable(word))
              << ". bundlectl --help tells more.\n";
    return EXIT_USAGE;
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
    return verb != nullptr ? RunVerb(commands, *verb, {argv + 2, argv + argc}) : TakeOwnOption(word);
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
