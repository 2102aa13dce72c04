#include "arguments.h"
#include "command.h"
#include "exit_status.h"
#include "model/collection.h"
#include "output/json_writer.h"
#include "output/terminal.h"
#include "plan.h"
#include "printable.h"
#include "suggestion.h"

#include <sys/stat.h>

#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace Plans;
using Output::Colour;
using Output::Terminal;

struct Options {
    std::string collection;
    std::vector<std::string> after; ///< a word and its subject
    bool json = false;
};

struct StepWords {
    Step::Kind kind;
    const char* word;     ///< for programs
    const char* sentence; ///< for people
};

constexpr StepWords STEP_WORDS[] = {
    {Step::LOADS, "load", "load"},          {Step::REFUSES, "refuse", "refuse"},
    {Step::RESOLVES, "resolve", "resolve"}, {Step::STARTS, "start", "start"},
    {Step::STOPS, "stop", "stop"},          {Step::UPDATES, "update", "update"},
    {Step::UNLOADS, "unload", "unload"},    {Step::ENDS, "end", "end with status 70"},
};

const char* WordOf(Step::Kind kind)
{
    return STEP_WORDS[kind].word;
}

std::string TextOf(const Step& step, const Terminal& terminal)
{
    const bool isBad = !step.message.empty();
    std::string text = Output::Paint(terminal, isBad ? Colour::BAD : Colour::GOOD, STEP_WORDS[step.kind].sentence);
    text += step.bundle.empty() ? "" : " " + Output::Shown(terminal, step.bundle);
    if (step.bundle.empty() || step.kind == Step::LOADS) {
        text += " " + Output::Paint(terminal, Colour::FAINT, Output::Shown(terminal, Printable(step.path)));
    }
    text += step.script.empty() ? "" : ", " + step.script + " runs";
    text += step.launches == 0 ? "" : ", " + std::to_string(step.launches) + " s for its items";
    return text + "\n" + (isBad ? "    " + Output::Shown(terminal, step.message) + "\n" : "");
}

std::string Text(const Plan& plan, const Terminal& terminal)
{
    std::string text;
    for (const Step& step : plan.steps) {
        text += TextOf(step, terminal);
    }
    for (const Affected& other : plan.affected) {
        text += Output::Paint(terminal, Colour::WARNING, "affected") + " " + Output::Shown(terminal, other.bundle) +
                ": " + other.text + "\n";
    }
    return text + (plan.steps.empty() ? "Nothing changes.\n"
                                      : "It takes " + std::to_string(plan.leastSeconds) + " s at least.\n");
}

std::string Json(const Plan& plan)
{
    Output::JsonWriter json;
    json.BeginOutput("plan", Model::Now()).Key("steps").BeginArray();
    for (const Step& step : plan.steps) {
        json.BeginObject().Member("step", WordOf(step.kind));
        json.Member("bundle", step.bundle.empty() ? std::nullopt : std::optional(step.bundle));
        json.Member("path", Printable(step.path));
        json.Member("message", step.message.empty() ? std::nullopt : std::optional(step.message));
        json.Member("script", step.script.empty() ? std::nullopt : std::optional(step.script));
        json.Member("launches", step.launches).End();
    }
    json.End().Key("affected").BeginArray();
    for (const Affected& other : plan.affected) {
        json.BeginObject().Member("bundle", other.bundle).Member("text", other.text).End();
    }
    json.End().Member("least_seconds", plan.leastSeconds).End();
    return json.Text();
}

int Refuse(int status, const std::string& text)
{
    std::cerr << "bundlectl: " << text << '\n';
    return status;
}

bool IsDirectory(const std::string& path)
{
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

int RefuseUnknown(const Options& options, const Change& change)
{
    const Model::Collection collection = Model::ReadCollection(options.collection, "/");
    std::vector<std::string_view> names;
    for (const Model::DeclaredBundle& bundle : collection.bundles) {
        names.emplace_back(bundle.name);
    }
    const std::string name = Printable(change.subject);
    return Refuse(EXIT_UNKNOWN_BUNDLE,
                  "no bundle of this collection that loads has the name \"" + name + "\"." + DidYouMean(name, names));
}

int RunPlan(const Options& options)
{
    Change change;
    if (!options.after.empty()) {
        constexpr const char* words[] = {"", "add", "delete", "update"};
        for (std::size_t kind = Change::ADD; kind <= Change::UPDATE; ++kind) {
            if (options.after.front() == words[kind]) {
                change.kind = static_cast<Change::Kind>(kind);
            }
        }
        if (change.kind == Change::NONE || options.after.size() != 2) {
            return Refuse(EXIT_USAGE, "after --after comes \"add DIR\", \"delete NAME\" or \"update DIR\"");
        }
        change.subject = options.after.back().substr(0, options.after.back().find_last_not_of('/') + 1);
    }
    if (!IsDirectory(options.collection)) {
        return Refuse(EXIT_USAGE,
                      Printable(options.collection) + " is no directory. Name the directory of the bundles.");
    }
    if ((change.kind == Change::ADD || change.kind == Change::UPDATE) && !IsDirectory(change.subject)) {
        return Refuse(EXIT_USAGE, Printable(change.subject) + " is no directory. Name the directory of the bundle.");
    }
    const Plan plan = MakePlan(options.collection, change);
    if (!plan.trouble.empty()) {
        return Refuse(EXIT_USAGE, plan.trouble);
    }
    if (plan.isUnknownBundle) {
        return RefuseUnknown(options, change);
    }
    std::cout << (options.json ? Json(plan) : Text(plan, Output::AskTerminal())) << std::flush;
    return !std::cout.good() || !plan.steps.empty() ? EXIT_FAILED : EXIT_DONE;
}

} // namespace

Action DefinePlan(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    Argument collection{"COLLECTION", "the directory of the bundles, as in the server's configuration", "DIR"};
    collection.isRequired = true;
    arguments.Add(collection, options->collection);
    arguments.Add(
        {"--after", "what a running server will do after a change: add DIR, delete NAME or update DIR", "CHANGE"},
        options->after);
    arguments.AddFlag("--json", "print JSON, for programs", options->json);
    return [options] { return RunPlan(*options); };
}
