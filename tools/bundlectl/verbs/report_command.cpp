#include "command.h"
#include "exit_status.h"
#include "model/log_access.h"
#include "model/log_reader.h"
#include "output/json_writer.h"
#include "places.h"
#include "printable.h"
#include "replaced_file.h"
#include "report_page.h"
#include "tools/version.h"

#include <sys/utsname.h>

#include <deque>
#include <memory>
#include <string>

namespace {

struct Options {
    Model::Choice choice;
    std::string file;
    bool json = false;
};

std::vector<std::string> LastErrors(const Model::Snapshot& snapshot)
{
    constexpr std::size_t kept = 50;
    constexpr std::chrono::hours span{24};
    std::deque<std::string> errors;
    Model::LogReader reader(Model::OpenLog(snapshot.installation.log, {snapshot.taken - span, 0}));
    Model::LogRecord record;
    while (reader.Next(record)) {
        if (record.level >= Model::LogRecord::ERROR) {
            errors.emplace_back(record.line);
            if (errors.size() > kept) {
                errors.pop_front();
            }
        }
    }
    return {errors.begin(), errors.end()};
}

std::vector<std::pair<std::string, std::string>> Versions(const Model::Snapshot& snapshot)
{
    std::vector<std::pair<std::string, std::string>> versions{{"bundlectl", TOOL_VERSION}};
    utsname system{};
    if (::uname(&system) == 0) {
        versions.emplace_back("kernel", std::string(system.sysname) + " " + system.release + " " + system.machine);
    }
    const Model::Installation& installation = snapshot.installation;
    if (installation.server) {
        versions.emplace_back("server's program", installation.server->program);
    }
    versions.emplace_back("configuration", installation.configuration.empty() ? "unknown" : installation.configuration);
    versions.emplace_back("collection", snapshot.collection.path.empty() ? "unknown" : snapshot.collection.path);
    versions.emplace_back("log", installation.log.path.empty() ? "unknown" : installation.log.path);
    return versions;
}

std::string Page(const Model::Snapshot& snapshot)
{
    const std::vector<Model::BundleStatus> bundles = Model::StatusOf(snapshot);
    const Model::Installation& installation = snapshot.installation;
    Verbs::Report report{snapshot, bundles, Model::FindingsOf(snapshot, bundles, {}, Model::Proc()), {}, {}, {}};
    if (installation.log.kind == Model::LogLocation::FILE || installation.log.kind == Model::LogLocation::JOURNAL) {
        Model::TimelineRequest request;
        request.server = installation.server ? installation.server->stat.pid : 0;
        std::vector<std::string> notes; // the same as the snapshot's
        report.timeline = Model::ReadTimeline(installation.log, request, notes);
        report.errors = LastErrors(snapshot);
    }
    report.versions = Versions(snapshot);
    return ReportPage(report);
}

int WriteReport(const Options& options)
{
    const auto snapshot = Model::TakeSnapshot(options.choice, Model::LogDepth::EVERYTHING);
    Verbs::TellNotes(snapshot->notes);
    const std::string page = Page(*snapshot);
    if (options.file == "-") {
        return Verbs::Print(page, EXIT_DONE);
    }
    if (!ReplaceFile(options.file, page)) {
        return EXIT_FAILED;
    }
    if (options.json) {
        Output::JsonWriter json;
        json.BeginOutput("report", snapshot->taken)
            .Member("file", Printable(options.file))
            .Member("bytes", page.size());
        return Verbs::Print(json.End().Text(), EXIT_DONE);
    }
    return Verbs::Print("The report is in " + Printable(options.file) + ".\n", EXIT_DONE);
}

} // namespace

Action DefineReport(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    Argument file{"-o,--output", "where to write the page; \"-\": to standard output", "FILE"};
    file.isRequired = true;
    arguments.Add(file, options->file);
    Verbs::AddJson(arguments, options->json);
    Verbs::AddPlaces(arguments, options->choice);
    return [options] { return WriteReport(*options); };
}
