#include "command.h"
#include "exit_status.h"
#include "model/log_access.h"
#include "places.h"
#include "printable.h"
#include "timeline_costs.h"
#include "timeline_view.h"

#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace {

using Model::Timeline;
using Model::TimelineRequest;

struct Options {
    Model::Choice choice;
    std::string from;
    std::string to;
    std::string format;
    std::vector<std::string> words; ///< "compare" and two logs, or nothing
    bool json = false;
};

/// Reads the timeline, and prints what could not be read.
std::optional<Timeline> Read(const Model::LogLocation& log, const TimelineRequest& request)
{
    std::vector<std::string> notes;
    std::optional<Timeline> timeline = ReadTimeline(log, request, notes);
    Verbs::TellNotes(notes);
    if (!timeline) {
        std::cerr << "bundlectl: " << (log.path.empty() ? "the log" : Printable(log.path))
                  << " has no beginning of a start-up. Give an older log with --log, or times with --from.\n";
    }
    return timeline;
}

/// Reads the timeline of the selected server. If there is none, prints a sentence and returns an empty value.
std::optional<Timeline> ReadOfServer(const Options& options)
{
    const Model::Time now = Model::Now();
    const Model::Installation installation = Model::FindInstallation(options.choice, Model::Proc());
    TimelineRequest request;
    request.from = options.from.empty() ? std::nullopt : Model::ParsePointInTime(options.from, now);
    request.to = options.to.empty() ? std::nullopt : Model::ParsePointInTime(options.to, now);
    // A log that the user names may not be the running server's.
    const bool isItsLog = options.choice.log.empty() && installation.server;
    request.server = isItsLog ? installation.server->stat.pid : 0;
    if (options.choice.log.empty() || installation.log.kind == Model::LogLocation::NOWHERE) {
        Verbs::TellNotes(installation.notes);
    }
    if (installation.log.kind == Model::LogLocation::NOWHERE) {
        return std::nullopt;
    }
    return Read(installation.log, request);
}

int ShowTimeline(const Options& options)
{
    const std::optional<Timeline> timeline = ReadOfServer(options);
    if (!timeline) {
        return EXIT_UNREACHABLE;
    }
    if (options.json || options.format == "json") {
        return Verbs::Print(Verbs::TimelineJson(*timeline), EXIT_DONE);
    }
    if (options.format == "svg") {
        return Verbs::Print(Verbs::TimelineSvg(*timeline), EXIT_DONE);
    }
    if (options.format == "chrome-trace") {
        return Verbs::Print(Verbs::TimelineTrace(*timeline), EXIT_DONE);
    }
    return Verbs::Print(Verbs::TimelineText(*timeline, Output::AskTerminal()), EXIT_DONE);
}

int CompareLogs(const Options& options)
{
    std::vector<Timeline> timelines;
    for (std::size_t i = 1; i < options.words.size(); ++i) {
        std::optional<Timeline> timeline = Read({Model::LogLocation::FILE, options.words[i], ""}, {});
        if (!timeline) {
            return EXIT_UNREACHABLE;
        }
        timelines.push_back(std::move(*timeline));
    }
    const Verbs::Comparison comparison = Verbs::Compare(timelines[0], timelines[1], Output::AskTerminal());
    return Verbs::Print(options.json ? comparison.json : comparison.text,
                        comparison.isSlower ? EXIT_FAILED : EXIT_DONE);
}

int RunTimeline(const Options& options)
{
    if (options.words.empty()) {
        return ShowTimeline(options);
    }
    if (options.words.front() != "compare" || options.words.size() != 3) {
        std::cerr << "bundlectl: a timeline takes no argument but \"compare LOG1 LOG2\".\n";
        return EXIT_USAGE;
    }
    return CompareLogs(options);
}

int RunBlame(const Options& options)
{
    const std::optional<Timeline> timeline = ReadOfServer(options);
    if (!timeline) {
        return EXIT_UNREACHABLE;
    }
    return Verbs::Print(options.json ? Verbs::BlameJson(*timeline) : Verbs::BlameText(*timeline, Output::AskTerminal()),
                        EXIT_DONE);
}

} // namespace

Action DefineTimeline(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    arguments.Add({"FILE", "\"compare\" and two logs: which bundles became slower"}, options->words);
    arguments.Add(
        {"--from", "a window in place of the start-up: 10m, 14:05, a date, or RFC 3339", "TIME", Verbs::FaultOfTime},
        options->from);
    arguments.Add({"--to", "the end of the window", "TIME", Verbs::FaultOfTime}, options->to);
    Argument format{"--format", "text, svg, json, or chrome-trace for a trace viewer", "FORMAT"};
    format.choices = "text svg json chrome-trace";
    arguments.Add(format, options->format);
    Verbs::AddJson(arguments, options->json);
    Verbs::AddPlaces(arguments, options->choice);
    return [options] { return RunTimeline(*options); };
}

Action DefineBlame(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    Verbs::AddJson(arguments, options->json);
    Verbs::AddPlaces(arguments, options->choice);
    return [options] { return RunBlame(*options); };
}
