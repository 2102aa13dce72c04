#include "arguments.h"
#include "command.h"
#include "exit_status.h"
#include "model/reasons.h"
#include "output/json_writer.h"
#include "output/times.h"
#include "places.h"
#include "status_view.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace {

using Model::BundleStatus;
using Model::Reason;
using Model::Snapshot;
using Model::ToldEnd;
using Output::Colour;
using Output::Terminal;

constexpr std::size_t ENDS = 5;

struct Options {
    Model::Choice choice;
    std::string name;
    bool json = false;
    bool evidence = false;
};

const char* NameOfThen(const ToldEnd& end)
{
    if (end.isServersStop) {
        return "stopped with its server";
    }
    constexpr const char* names[] = {"", "rests", "run again", "stopped by the server"};
    return names[end.end.then];
}

std::string ReasonText(const Reason& reason, bool withEvidence, const Terminal& terminal)
{
    std::string text = "  " + Output::Shown(terminal, reason.text);
    if (reason.isRecomputed) {
        text +=
            Output::Paint(terminal, Colour::FAINT, " (found out from the files as they are now; the log does not say)");
    }
    text += "\n";
    if (!reason.remedy.empty()) {
        text += "    " + Output::Paint(terminal, Colour::STRONG, "Way out: ") + Output::Shown(terminal, reason.remedy) +
                "\n";
    }
    for (const std::string& line : reason.evidence) {
        if (withEvidence && !line.empty()) {
            text += "    " + Output::Paint(terminal, Colour::FAINT, Output::Shown(terminal, line)) + "\n";
        }
    }
    return text;
}

std::string EndText(const ToldEnd& end, Model::Time now, bool withEvidence, const Terminal& terminal)
{
    const std::string then = NameOfThen(end);
    std::string text = "  " + Output::LocalTime(end.end.time, now) + "  " + Output::Ago(end.end.time, now) + "  " +
                       Output::Shown(terminal, end.item) + "  " + Model::NameOfEnd(end.end) +
                       (then.empty() ? "" : ", " + then) + "\n";
    if (withEvidence) {
        text += "    " + Output::Paint(terminal, Colour::FAINT, Output::Shown(terminal, end.end.line)) + "\n";
    }
    return text;
}

std::string Explanation(const Options& options, const Snapshot& snapshot, const BundleStatus& bundle,
                        const Terminal& terminal)
{
    std::string text = Output::Sign(terminal, Verbs::MarkOf(bundle)) + " " +
                       Output::Paint(terminal, Colour::STRONG, Output::Shown(terminal, Verbs::NameToShow(bundle))) +
                       " is " + Output::Paint(terminal, Verbs::ColourOf(bundle), Verbs::NameOfState(bundle)) + ", " +
                       std::to_string(bundle.itemsUp) + " of " + std::to_string(bundle.items.size()) + " items up.\n";
    for (const Reason& reason : Model::ReasonsOf(snapshot, bundle, true)) {
        text += ReasonText(reason, options.evidence, terminal);
    }
    const std::vector<ToldEnd> ends = Model::LastEnds(snapshot, bundle, ENDS);
    text += ends.empty() ? "" : "Last ends of its items:\n";
    for (const ToldEnd& end : ends) {
        text += EndText(end, snapshot.taken, options.evidence, terminal);
    }
    return text;
}

void WriteReason(Output::JsonWriter& json, const Reason& reason)
{
    json.BeginObject().Member("kind", reason.kind).Member("text", reason.text);
    json.Member("remedy", reason.remedy.empty() ? std::nullopt : std::optional(reason.remedy));
    json.Member("recomputed", reason.isRecomputed);
    json.Key("evidence").BeginArray();
    for (const std::string& line : reason.evidence) {
        json.Value(line);
    }
    json.End().End();
}

void WriteEnd(Output::JsonWriter& json, const ToldEnd& end)
{
    json.BeginObject().Member("time", end.end.time).Member("item", end.item).Member("pid", end.end.pid);
    json.Member(end.end.isSignal ? "signal" : "status", end.end.number).Member("name", Model::NameOfEnd(end.end));
    json.Member("then", NameOfThen(end)).Member("evidence", end.end.line).End();
}

std::string Json(const Snapshot& snapshot, const std::vector<const BundleStatus*>& bundles)
{
    Output::JsonWriter json;
    json.BeginOutput("why", snapshot.taken).Key("bundles").BeginArray();
    for (const BundleStatus* const bundle : bundles) {
        json.BeginObject().Member("name", bundle->name.empty() ? std::nullopt : std::optional(bundle->name));
        json.Member("path", bundle->path);
        json.Member("state", Verbs::NameOfState(*bundle)).Member("since", bundle->since);
        json.Member("healthy", bundle->IsHealthy()).Key("reasons").BeginArray();
        for (const Reason& reason : Model::ReasonsOf(snapshot, *bundle, true)) {
            WriteReason(json, reason);
        }
        json.End().Key("last_ends").BeginArray();
        for (const ToldEnd& end : Model::LastEnds(snapshot, *bundle, ENDS)) {
            WriteEnd(json, end);
        }
        json.End().End();
    }
    json.End().Key("notes").BeginArray();
    for (const std::string& note : snapshot.notes) {
        json.Value(note);
    }
    json.End().End();
    return json.Text();
}

int TellWhy(const Options& options)
{
    const auto snapshot = Model::TakeSnapshot(options.choice, Model::LogDepth::EVERYTHING);
    const std::vector<BundleStatus> bundles = Model::StatusOf(*snapshot);
    const std::vector<const BundleStatus*> chosen = Verbs::FindByName(bundles, options.name);
    if (!options.json || chosen.empty()) {
        Verbs::TellNotes(snapshot->notes);
    }
    if (chosen.empty()) {
        return Verbs::TellUnknown(options.name, *snapshot, bundles);
    }
    const bool isGood =
        std::all_of(chosen.begin(), chosen.end(), [](const BundleStatus* bundle) { return bundle->IsHealthy(); });
    const int status = !snapshot->installation.server ? EXIT_UNREACHABLE : isGood ? EXIT_DONE : EXIT_FAILED;
    std::string text;
    if (options.json) {
        text = Json(*snapshot, chosen);
    } else {
        const Terminal terminal = Output::AskTerminal();
        for (const BundleStatus* const bundle : chosen) {
            text += Explanation(options, *snapshot, *bundle, terminal);
        }
    }
    return Verbs::Print(text, status);
}

} // namespace

Action DefineWhy(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    Verbs::AddName(arguments, options->name, true);
    arguments.AddFlag("--evidence", "print the records of the log that prove it", options->evidence);
    Verbs::AddJson(arguments, options->json);
    Verbs::AddPlaces(arguments, options->choice);
    return [options] { return TellWhy(*options); };
}
