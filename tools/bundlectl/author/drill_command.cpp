#include "arguments.h"
#include "command.h"
#include "drill_report.h"
#include "exit_status.h"
#include "printable.h"
#include "private_run.h"
#include "trial_bundles.h"
#include "trial_options.h"
#include "trial_verdict.h"

#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace Trials;
using Output::Terminal;

struct Options {
    TrialOptions trial;
    std::vector<std::string> only;
    std::string item;
    std::string check;
    std::string junit;
    std::optional<std::chrono::milliseconds> patience;
    bool json = false;
};

/// The name of the drilled bundle, and why it is not up; empty: it is up.
std::string FindName(const TrialServer& server, const TrialBundles& bundles, bool isUp, std::string& name)
{
    std::string reasons;
    for (const BundleVerdict& bundle : Judge(*server.Look(), bundles)) {
        name = bundle.name.empty() ? Printable(bundle.directory) : bundle.name;
        for (const Model::Reason& reason : bundle.reasons) {
            reasons += " " + reason.text;
        }
    }
    return isUp ? "" : "It is not up from the start." + reasons;
}

void RunExercises(const Options& options, const Drill::Settings& settings, const ServerPrograms& programs,
                  const TrialBundles& bundles, DrillReport& report)
{
    const Terminal terminal = Output::AskTerminal();
    constexpr std::chrono::seconds perItem(2);
    MountDrillLog(std::string(PRIVATE_DIRECTORY) + "/log");
    TrialServer server(programs, bundles.collection, PRIVATE_DIRECTORY);
    DrilledBundle bundle(server, bundles.sources.begin()->first);
    try {
        bundle.WaitUntil([](const auto& now) { return now.state == "Active"; }, settings.patience);
        const auto items = bundle.Look().items;
        const bool isUp = bundle.WaitUntil([](const auto& now) { return now.isUp; },
                                           settings.patience + perItem * static_cast<int>(items.size()));
        report.ended = FindName(server, bundles, isUp, report.bundle);
        if (!report.ended.empty()) {
            return;
        }
        Drill(bundle, settings, [&](const DrillResult& result) {
            report.results.push_back(result);
            std::cout << (options.json ? "" : DrillText(result, terminal)) << std::flush;
        }).Run();
    } catch (const DrillEnded& end) {
        report.ended = end.what();
    }
}

int RunInside(const Options& options, const Drill::Settings& settings, const ServerPrograms& programs,
              std::ofstream& junit)
{
    const TrialBundles bundles = CopyBundles(options.trial.directories, std::string(PRIVATE_DIRECTORY) + "/bundles");
    DrillReport report;
    report.stubs = bundles.stubs;
    report.directory = bundles.sources.begin()->second;
    report.bundle = Printable(report.directory);
    RunExercises(options, settings, programs, bundles, report);
    std::cout << (options.json ? DrillJson(report) : DrillSummary(report)) << std::flush;
    if (junit.is_open() && !(junit << DrillJunit(report) << std::flush)) {
        std::cerr << "bundlectl: " << Printable(options.junit) << " cannot be written.\n";
        return EXIT_FAILED;
    }
    return report.IsGood() && std::cout.good() ? EXIT_DONE : EXIT_FAILED;
}

int RunDrill(const Options& options)
{
    Drill::Settings settings;
    std::vector<std::string> unknown;
    settings.exercises = ChooseExercises(options.only, unknown);
    settings.item = options.item;
    settings.check = options.check;
    settings.patience = options.patience.value_or(settings.patience);
    if (!unknown.empty()) {
        std::cerr << "bundlectl: there is no exercise \"" << Printable(unknown.front())
                  << "\". There are: " << NamesOfExercises()
                  << "; of a group one alone as in signal:SEGV or status:2.\n";
        return EXIT_USAGE;
    }
    std::ofstream junit;
    if (!options.junit.empty()) {
        junit.open(options.junit); // now, so that an error shows at once and not after minutes
        if (!junit) {
            std::cerr << "bundlectl: " << Printable(options.junit) << " cannot be written.\n";
            return EXIT_USAGE;
        }
    }
    return RunTrial(options.trial,
                    [&](const ServerPrograms& programs) { return RunInside(options, settings, programs, junit); });
}

} // namespace

Action DefineDrill(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    AddTrialOptions(arguments, options->trial, false);
    arguments.Add({"--only", "only these exercises, such as signal, status:2 or exchange; all without it", "EXERCISE"},
                  options->only);
    arguments.Add({"--item", "only this item, in exercises with items", "ITEM"}, options->item);
    arguments.Add({"--check", "a command that fails when the data in the directory $BUNDLE are damaged", "COMMAND"},
                  options->check);
    AddSpanOption(arguments, "--patience", "how long an item may take to be run again, 10s without it",
                  options->patience);
    arguments.Add({"--junit", "write the results for a continuous integration, as JUnit XML", "FILE"}, options->junit);
    arguments.AddFlag("--json", "print JSON at the end, for programs", options->json);
    return [options] { return RunDrill(*options); };
}
