#include "command.h"
#include "exit_status.h"
#include "model/sockets.h"
#include "model/status.h"
#include "output/json_writer.h"
#include "output/table.h"
#include "places.h"
#include "printable.h"
#include "process_end.h"
#include "timeout_option.h"

#include <algorithm>
#include <csignal>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace {

using Model::BundleProcess;
using Output::Colour;

struct Options {
    Model::Choice choice;
    std::chrono::seconds grace{5};
    bool end = false;
    bool dryRun = false;
    bool json = false;
};

/// A process that a former server has left.
struct Orphan {
    Model::ProcessStat stat;
    std::string bundle;
    std::string item;
    std::string program; ///< empty: it may not be read
    std::vector<std::string> sockets;
    std::string
        fate; ///< "TERM" or "KILL": the signal that ended it; "left": it was not touched; otherwise the error text
};

std::vector<Orphan> FindOrphans(const Model::Snapshot& snapshot, const Model::Proc& proc)
{
    std::vector<Orphan> orphans;
    for (const BundleProcess& process : snapshot.processes) {
        if (process.role != Model::ProcessRole::LEFT_OVER || !process.stat.IsAlive()) {
            continue;
        }
        const pid_t pid = process.stat.pid;
        orphans.push_back({process.stat, process.bundle, process.item, proc.Link(pid, "exe").value_or(""),
                           Model::Sockets(proc, pid).Of(pid), "left"});
    }
    return orphans;
}

/// First asks all processes to end, so that they end at the same time.
void End(std::vector<Orphan>& orphans, std::chrono::seconds grace, const Model::Proc& proc)
{
    std::vector<std::unique_ptr<EndingProcess>> held;
    for (Orphan& orphan : orphans) {
        held.push_back(std::make_unique<EndingProcess>(orphan.stat, orphan.program, proc));
        EndingProcess& process = *held.back();
        if (!process.Trouble().empty() || !process.Send(SIGTERM)) {
            orphan.fate = process.Trouble();
        }
    }
    const auto end = std::chrono::steady_clock::now() + grace;
    for (std::size_t i = 0; i < orphans.size(); ++i) {
        if (orphans[i].fate != "left") {
            continue;
        }
        EndingProcess& process = *held[i];
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        constexpr std::chrono::seconds afterKill{5};
        if (process.WaitForEnd(left)) {
            orphans[i].fate = "TERM";
        } else if (process.Send(SIGKILL) && process.WaitForEnd(afterKill)) {
            orphans[i].fate = "KILL";
        } else {
            orphans[i].fate = process.Trouble().empty() ? "it does not end" : process.Trouble();
        }
    }
}

bool HasEnded(const Orphan& orphan)
{
    return orphan.fate == "TERM" || orphan.fate == "KILL" || orphan.fate == "it has ended";
}

std::string Text(const Model::Snapshot& snapshot, const std::vector<Orphan>& orphans, const Options& options,
                 const Output::Terminal& terminal)
{
    if (orphans.empty()) {
        return snapshot.IsCollectionRead()
                   ? "No process of a former server is left.\n"
                   : "No process of a former server was found. Without the collection, not all are recognised.\n";
    }
    const Model::Proc proc;
    Output::Table table({"PID", "BUNDLE", "ITEM", "AGE", "SOCKETS", options.end ? "ENDED BY" : "", "PROGRAM"});
    for (const Orphan& orphan : orphans) {
        std::string sockets;
        for (const std::string& socket : orphan.sockets) {
            sockets += (sockets.empty() ? "" : ", ") + socket;
        }
        const std::string fate = options.dryRun ? "would get TERM" : options.end ? orphan.fate : "";
        table.Add({std::to_string(orphan.stat.pid),
                   orphan.bundle.empty() ? "unknown" : Output::Shown(terminal, orphan.bundle),
                   orphan.item.empty() ? "unknown" : Output::Shown(terminal, orphan.item),
                   Model::SpanText(proc.Uptime(orphan.stat)),
                   Output::Shown(terminal, sockets),
                   {fate, HasEnded(orphan) ? Colour::NONE : Colour::WARNING},
                   Output::Shown(terminal, orphan.program)});
    }
    return table.Text(terminal) + (options.end || options.dryRun
                                       ? ""
                                       : "bundlectl orphans --end ends them; --dry-run shows what that would do.\n");
}

std::string Json(const Model::Snapshot& snapshot, const std::vector<Orphan>& orphans, bool end)
{
    const Model::Proc proc;
    Output::JsonWriter json;
    json.BeginOutput("orphans", snapshot.taken).Key("orphans").BeginArray();
    for (const Orphan& orphan : orphans) {
        json.BeginObject().Member("pid", orphan.stat.pid);
        json.Member("bundle", orphan.bundle.empty() ? std::nullopt : std::optional(orphan.bundle));
        json.Member("item", orphan.item.empty() ? std::nullopt : std::optional(orphan.item));
        json.Member("program", orphan.program.empty() ? std::nullopt : std::optional(Printable(orphan.program)));
        json.Member("age_seconds", proc.Uptime(orphan.stat)).Key("sockets").BeginArray();
        for (const std::string& socket : orphan.sockets) {
            json.Value(socket);
        }
        json.End().Member("fate", end ? orphan.fate : "left").End();
    }
    json.End().Key("notes").BeginArray();
    for (const std::string& note : snapshot.notes) {
        json.Value(note);
    }
    json.End().End();
    return json.Text();
}

int StatusOf(const Model::Snapshot& snapshot, const std::vector<Orphan>& orphans)
{
    if (!std::all_of(orphans.begin(), orphans.end(), HasEnded)) {
        return EXIT_FAILED;
    }
    return snapshot.IsCollectionRead() ? EXIT_DONE : EXIT_UNREACHABLE;
}

int ShowOrphans(Options& options)
{
    const Model::Proc proc;
    const auto snapshot = Model::TakeSnapshot(options.choice, Model::LogDepth::EVERYTHING, proc);
    std::vector<Orphan> orphans = FindOrphans(*snapshot, proc);
    if (!options.json) {
        Verbs::TellNotes(snapshot->notes);
    }
    options.end = options.end && !options.dryRun;
    if (options.end) {
        End(orphans, options.grace, proc);
    }
    return Verbs::Print(options.json ? Json(*snapshot, orphans, options.end)
                                     : Text(*snapshot, orphans, options, Output::AskTerminal()),
                        StatusOf(*snapshot, orphans));
}

} // namespace

Action DefineOrphans(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    arguments.AddFlag("--end", "end them: TERM first, KILL after the grace time", options->end);
    arguments.AddFlag("--dry-run", "show what --end would do, and do nothing", options->dryRun);
    AddSpan(arguments, "--grace", "how long they may take to end", options->grace);
    Verbs::AddJson(arguments, options->json);
    Verbs::AddPlaces(arguments, options->choice);
    return [options] { return ShowOrphans(*options); };
}
