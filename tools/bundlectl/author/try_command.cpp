#include "arguments.h"
#include "command.h"
#include "exit_status.h"
#include "model/log_time.h"
#include "output/json_writer.h"
#include "output/terminal.h"
#include "printable.h"
#include "private_run.h"
#include "trial_bundles.h"
#include "trial_log_view.h"
#include "trial_options.h"
#include "trial_server.h"
#include "trial_verdict.h"

#include <chrono>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

using namespace Trials;
using Output::Colour;
using Output::Terminal;
using Clock = std::chrono::steady_clock;

struct Options {
    TrialOptions trial;
    std::optional<std::chrono::milliseconds> span;
    bool expectsActive = false;
    bool json = false;
};

/// The result of the trial.
struct Result {
    const char* ended = "request"; ///< "time", "request", "server"
    std::string serversEnd;
    std::vector<BundleVerdict> bundles;
    bool isGood = false;
};

std::string TextOfStubs(const TrialBundles& bundles, const Terminal& terminal)
{
    std::string text;
    for (const std::string& stub : bundles.stubs) {
        text += "\"" + Output::Shown(terminal, stub) +
                "\" is required and not given: a stub stands in for it, a bundle without items.\n";
    }
    return text;
}

std::string TextOf(const BundleVerdict& bundle, const Terminal& terminal)
{
    const std::string name = bundle.name.empty() ? Printable(bundle.directory) : bundle.name;
    std::string text = Output::Sign(terminal, bundle.isGood ? Output::Mark::GOOD : Output::Mark::BAD) + " " +
                       Output::Paint(terminal, Colour::STRONG, Output::Shown(terminal, name)) + " is " +
                       Output::Paint(terminal, bundle.isGood ? Colour::GOOD : Colour::BAD, bundle.state) + ", " +
                       std::to_string(bundle.itemsUp) + " of " + std::to_string(bundle.items) + " items up.\n";
    for (const Model::Reason& reason : bundle.reasons) {
        text += "  " + Output::Shown(terminal, reason.text) + "\n";
        if (!reason.remedy.empty()) {
            text += "    " + Output::Paint(terminal, Colour::STRONG, "Way out: ") +
                    Output::Shown(terminal, reason.remedy) + "\n";
        }
    }
    return text;
}

std::string Text(const Result& result, const Options& options, const Terminal& terminal)
{
    std::string text;
    for (const BundleVerdict& bundle : result.bundles) {
        text += TextOf(bundle, terminal);
    }
    if (!result.serversEnd.empty()) {
        text += "The server has ended by itself: " + result.serversEnd + ".\n";
    } else if (options.expectsActive && options.span && std::string(result.ended) == "request") {
        text += "It was ended before its time was over.\n";
    }
    return text;
}

void WriteBundle(Output::JsonWriter& json, const BundleVerdict& bundle)
{
    json.BeginObject().Member("name", bundle.name.empty() ? std::nullopt : std::optional(bundle.name));
    json.Member("path", Printable(bundle.directory)).Member("state", bundle.state).Member("good", bundle.isGood);
    json.Member("items", bundle.items).Member("items_up", bundle.itemsUp).Key("deaths").BeginArray();
    for (const Death& death : bundle.deaths) {
        json.BeginObject().Member("item", death.item).Member("name", death.how);
        json.Member("run_again", death.wasRunAgain).End();
    }
    json.End().Key("reasons").BeginArray();
    for (const Model::Reason& reason : bundle.reasons) {
        json.BeginObject().Member("kind", reason.kind).Member("text", reason.text);
        json.Member("remedy", reason.remedy.empty() ? std::nullopt : std::optional(reason.remedy)).End();
    }
    json.End().End();
}

std::string Json(const Result& result, const TrialBundles& bundles)
{
    Output::JsonWriter json;
    json.BeginOutput("try", Model::Now()).Member("ended", result.ended);
    json.Member("server_end", result.serversEnd.empty() ? std::nullopt : std::optional(result.serversEnd));
    json.Member("good", result.isGood).Key("stubs").BeginArray();
    for (const std::string& stub : bundles.stubs) {
        json.Value(stub);
    }
    json.End().Key("bundles").BeginArray();
    for (const BundleVerdict& bundle : result.bundles) {
        WriteBundle(json, bundle);
    }
    json.End().End();
    return json.Text();
}

/// Lets the server run until the time is over, the server ends, or the user stops it.
Result Run(const Options& options, const TrialBundles& bundles, const ServerPrograms& programs,
           const Terminal& terminal)
{
    constexpr std::chrono::milliseconds step(50);
    const auto begin = Clock::now();
    TrialServer server(programs, bundles.collection, PRIVATE_DIRECTORY);
    TrialLogView view(server.Log(), terminal);
    Result result;
    bool goesOn = true;
    while (goesOn && result.serversEnd.empty()) {
        if (options.span && Clock::now() - begin >= *options.span) {
            result.ended = "time";
            break;
        }
        goesOn = Pause(step) && (options.json || view.Print());
        result.serversEnd = server.TakeEnd();
    }
    if (!options.json) {
        view.Print();
    }
    result.ended = result.serversEnd.empty() ? result.ended : "server";
    result.bundles = Judge(*server.Look(), bundles);
    result.isGood = result.serversEnd.empty() && (!options.span || std::string(result.ended) == "time");
    for (BundleVerdict& bundle : result.bundles) {
        result.isGood = result.isGood && bundle.isGood;
        if (!result.serversEnd.empty()) {
            bundle.reasons.clear(); // they tell how to start the installed server
        }
    }
    return result;
}

int RunInside(const Options& options, const ServerPrograms& programs)
{
    const Terminal terminal = Output::AskTerminal();
    const TrialBundles bundles = CopyBundles(options.trial.directories, std::string(PRIVATE_DIRECTORY) + "/bundles");
    if (!options.json) {
        std::cout << TextOfStubs(bundles, terminal) << std::flush;
    }
    const Result result = Run(options, bundles, programs, terminal);
    std::cout << (options.json ? Json(result, bundles) : Text(result, options, terminal)) << std::flush;
    const bool isFailure = !result.serversEnd.empty() || (options.expectsActive && !result.isGood);
    return isFailure || !std::cout.good() ? EXIT_FAILED : EXIT_DONE;
}

} // namespace

Action DefineTry(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    AddTrialOptions(arguments, options->trial, true);
    AddSpanOption(arguments, "--for", "end after that time, such as 10s; without it, Ctrl-C ends it", options->span);
    Argument expect{"--expect", "fail unless all bundles are active with all items up, and none has died", "STATE"};
    expect.choices = "active";
    arguments.Add(expect, [options](const std::string&) { options->expectsActive = true; });
    arguments.AddFlag("--json", "print JSON at the end, for programs, and no log", options->json);
    return [options] {
        return RunTrial(options->trial,
                        [options](const ServerPrograms& programs) { return RunInside(*options, programs); });
    };
}
