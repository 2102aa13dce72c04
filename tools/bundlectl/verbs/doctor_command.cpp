#include "command.h"
#include "exit_status.h"
#include "model/findings.h"
#include "output/json_writer.h"
#include "places.h"

#include <memory>
#include <string>
#include <vector>

namespace {

using Model::Finding;
using Output::Colour;

struct Options {
    Model::Choice choice;
    bool json = false;
};

std::string Text(const std::vector<Finding>& findings, const Output::Terminal& terminal)
{
    if (findings.empty()) {
        return Output::Sign(terminal, Output::Mark::GOOD) + " Nothing is wrong, as far as this user may see.\n";
    }
    std::string text;
    for (const Finding& finding : findings) {
        text += Output::Sign(terminal, finding.isError ? Output::Mark::BAD : Output::Mark::WARNING) + " " +
                Output::Paint(terminal, Colour::STRONG, Output::Shown(terminal, finding.what)) + "\n    " +
                Output::Shown(terminal, finding.why) + "\n    " + Output::Paint(terminal, Colour::STRONG, "Way out: ") +
                Output::Shown(terminal, finding.remedy) + "\n";
    }
    return text;
}

std::string Json(const Model::Snapshot& snapshot, const std::vector<Finding>& findings)
{
    Output::JsonWriter json;
    json.BeginOutput("doctor", snapshot.taken).Key("findings").BeginArray();
    for (const Finding& finding : findings) {
        json.BeginObject().Member("kind", finding.kind).Member("severity", finding.isError ? "error" : "warning");
        json.Member("what", finding.what).Member("why", finding.why).Member("remedy", finding.remedy).End();
    }
    json.End().Key("notes").BeginArray();
    for (const std::string& note : snapshot.notes) {
        json.Value(note);
    }
    json.End().End();
    return json.Text();
}

int Examine(const Options& options)
{
    const Model::Proc proc;
    const auto snapshot = Model::TakeSnapshot(options.choice, Model::LogDepth::EVERYTHING, proc);
    const std::vector<Finding> findings = Model::FindingsOf(*snapshot, Model::StatusOf(*snapshot), {}, proc);
    if (!options.json) {
        Verbs::TellNotes(snapshot->notes);
    }
    return Verbs::Print(options.json ? Json(*snapshot, findings) : Text(findings, Output::AskTerminal()),
                        findings.empty() ? EXIT_DONE : EXIT_FAILED);
}

} // namespace

Action DefineDoctor(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    Verbs::AddJson(arguments, options->json);
    Verbs::AddPlaces(arguments, options->choice);
    return [options] { return Examine(*options); };
}
