#include "completion.h"

#include "exit_status.h"
#include "model/collection.h"
#include "model/installation.h"
#include "other_program.h"
#include "printable.h"

#include <algorithm>
#include <iostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

bool Begins(std::string_view text, std::string_view beginning)
{
    return text.substr(0, beginning.size()) == beginning;
}

/// The completion that the shell asks for.
struct Question {
    std::vector<std::string_view> words; ///< after the verb, without the last
    std::string_view last;               ///< to be completed

    void Offer(std::string_view word, std::string_view description) const
    {
        if (Begins(word, last)) {
            std::cout << word << '\t' << description << '\n';
        }
    }

    /// The value that was given to an option; empty: none.
    std::string ValueOf(std::string_view option) const
    {
        const auto found = std::find(words.begin(), words.end(), option);
        return found == words.end() || found + 1 == words.end() ? std::string() : std::string(found[1]);
    }
};

/// The present bundles, as the server reads them. Leaves out names with control characters, because they cannot be
/// typed.
void OfferBundles(const Question& question)
{
    Model::Choice choice;
    choice.configuration = question.ValueOf("--config");
    choice.collection = question.ValueOf("--collection");
    const Model::Installation installation = Model::FindInstallation(choice, Model::Proc());
    std::set<std::string> names;
    for (const Model::DeclaredBundle& bundle :
         Model::ReadCollection(installation.collection, installation.base).bundles) {
        if (!bundle.name.empty() && bundle.name.find('\\') == std::string::npos) {
            names.insert(bundle.name);
        }
    }
    for (const std::string& name : names) {
        question.Offer(name, "bundle");
    }
}

void OfferValues(const Question& question, const Argument& argument)
{
    for (const std::string_view choice : WordsOf(argument.choices)) {
        question.Offer(choice, "");
    }
    const std::string_view kind = argument.ValueName();
    if (kind == "NAME") {
        OfferBundles(question);
    } else if (kind == "FILE") {
        std::cout << ":files\n";
    } else if (kind == "DIR") {
        std::cout << ":directories\n";
    }
}

void OfferOptions(const Question& question, const Arguments& arguments)
{
    for (const DeclaredArgument& declared : arguments.All()) {
        if (declared.argument.IsOption()) {
            question.Offer(declared.argument.MainName(), declared.argument.description);
        }
    }
    question.Offer("--help", "print the options and exit");
}

/// The option with this name, if it has a value; otherwise null.
const Argument* FindOption(const Arguments& arguments, std::string_view name)
{
    for (const DeclaredArgument& declared : arguments.All()) {
        std::string_view names = declared.argument.names;
        while (!declared.isFlag && declared.argument.IsOption() && !names.empty()) {
            const std::size_t size = std::min(names.find(','), names.size());
            if (names.substr(0, size) == name) {
                return &declared.argument;
            }
            names.remove_prefix(std::min(size + 1, names.size()));
        }
    }
    return nullptr;
}

void CompleteVerb(const Arguments& arguments, Question question)
{
    // bash hands over "--log=x" as three words.
    if (question.last == "=") {
        question.last = "";
    } else if (!question.words.empty() && question.words.back() == "=") {
        question.words.pop_back();
    }
    if (!question.words.empty()) {
        const Argument* const option = FindOption(arguments, question.words.back());
        if (option != nullptr) {
            OfferValues(question, *option);
            return;
        }
    }
    if (Begins(question.last, "-")) {
        OfferOptions(question, arguments);
        return;
    }
    for (const DeclaredArgument& declared : arguments.All()) {
        if (!declared.argument.IsOption()) {
            OfferValues(question, declared.argument);
            return;
        }
    }
    OfferOptions(question, arguments);
}

} // namespace

int Complete(const Commands& commands, int argc, char** argv)
{
    constexpr int first = 2; // after the program and the option
    Question question;
    question.last = argc > first ? argv[argc - 1] : "";
    if (argc <= first + 1) {
        for (const Verb& verb : VERBS) {
            question.Offer(verb.name, verb.description);
        }
        question.Offer("--help", "print the options and exit");
        question.Offer("--version", "print the version and exit");
        return EXIT_DONE;
    }
    const Verb* const verb = FindVerb(argv[first]);
    if (verb == nullptr) {
        return EXIT_DONE;
    }
    const Definition define = commands.Find(verb->name);
    if (define == nullptr) {
        return verb->program == commands.program ? EXIT_DONE : RunOtherProgram(verb->program, argv);
    }
    question.words.assign(argv + first + 1, argv + argc - 1);
    Arguments arguments;
    const Action action = define(arguments); // owns the objects that the arguments refer to
    CompleteVerb(arguments, std::move(question));
    return EXIT_DONE;
}
