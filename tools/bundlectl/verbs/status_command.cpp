#include "arguments.h"
#include "command.h"
#include "exit_status.h"
#include "output/times.h"
#include "places.h"
#include "status_view.h"
#include "watch.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace {

using Model::BundleStatus;

struct Options {
    Model::Choice choice;
    std::string name;
    bool json = false;
    bool watch = false;
};

constexpr std::chrono::milliseconds INTERVAL{2000};

std::vector<const BundleStatus*> Chosen(const std::vector<BundleStatus>& bundles, const std::string& name)
{
    if (!name.empty()) {
        return Verbs::FindByName(bundles, name);
    }
    std::vector<const BundleStatus*> all;
    all.reserve(bundles.size());
    for (const BundleStatus& bundle : bundles) {
        all.push_back(&bundle);
    }
    return all;
}

std::string TextOf(const Options& options, const Model::Snapshot& snapshot, const std::vector<BundleStatus>& bundles,
                   const Output::Terminal& terminal)
{
    const std::vector<const BundleStatus*> chosen = Chosen(bundles, options.name);
    if (options.json) {
        return Verbs::StatusJson(snapshot, chosen, !options.name.empty());
    }
    if (options.name.empty()) {
        return Verbs::StatusTable(snapshot, bundles, terminal);
    }
    std::string text;
    for (const BundleStatus* const bundle : chosen) {
        text += Verbs::StatusDetails(snapshot, *bundle, terminal);
    }
    return text;
}

int StatusOfAll(const Model::Snapshot& snapshot, const std::vector<const BundleStatus*>& chosen)
{
    if (!snapshot.installation.server || !snapshot.IsCollectionRead()) {
        return EXIT_UNREACHABLE;
    }
    const bool isGood =
        std::all_of(chosen.begin(), chosen.end(), [](const BundleStatus* bundle) { return bundle->IsHealthy(); });
    return isGood ? EXIT_DONE : EXIT_FAILED;
}

std::string Picture(const Options& options, const Output::Terminal& terminal)
{
    const auto snapshot = Model::TakeSnapshot(options.choice, Model::LogDepth::SERVER);
    const std::string now = Output::LocalTime(snapshot->taken, snapshot->taken);
    return Output::Paint(terminal, Output::Colour::FAINT, now + "  q quits\n") +
           TextOf(options, *snapshot, Model::StatusOf(*snapshot), terminal);
}

int ShowStatus(const Options& options)
{
    if (options.watch) {
        return Verbs::Watch(INTERVAL,
                            [&options](const Output::Terminal& terminal) { return Picture(options, terminal); });
    }
    const auto snapshot = Model::TakeSnapshot(options.choice, Model::LogDepth::SERVER);
    const std::vector<BundleStatus> bundles = Model::StatusOf(*snapshot);
    const std::vector<const BundleStatus*> chosen = Chosen(bundles, options.name);
    if (!options.json || chosen.empty()) {
        Verbs::TellNotes(snapshot->notes);
    }
    if (!options.name.empty() && chosen.empty()) {
        return Verbs::TellUnknown(options.name, *snapshot, bundles);
    }
    return Verbs::Print(TextOf(options, *snapshot, bundles, Output::AskTerminal()), StatusOfAll(*snapshot, chosen));
}

} // namespace

Action DefineStatus(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    Verbs::AddName(arguments, options->name, false);
    arguments.AddFlag("--watch", "show it until q or Ctrl-C is pressed", options->watch);
    Verbs::AddJson(arguments, options->json);
    Verbs::AddPlaces(arguments, options->choice);
    return [options] { return ShowStatus(*options); };
}
