#include "arguments.h"
#include "command.h"
#include "exit_status.h"
#include "installer.h"
#include "output/json_writer.h"
#include "output/table.h"
#include "output/terminal.h"
#include "output/times.h"
#include "printable.h"
#include "run.h"

#include <algorithm>
#include <iostream>
#include <memory>

namespace {

using namespace Put;

struct Options {
    CommonOptions common;
    std::string name;
    std::string soak = "10s";
    long to = 0;
};

/// The directory that has, or had, the bundle of that name; empty: none.
std::string DirectoryOf(const Store& store, const std::string& name)
{
    if (const auto placed = FindPlaced(store.Collection(), name)) {
        return placed->directory;
    }
    // The bundle was removed: its versions contain its name.
    for (const std::string& directory : DirectoriesWithVersions(store)) {
        if (FindPlaced(store.Path() + "/versions/" + directory, name)) {
            return directory;
        }
    }
    return "";
}

int TellUnknown(const Options& options, const Store& store, const char* verb)
{
    Report report;
    report.verb = verb;
    report.bundle = options.name;
    report.outcome = "unknown-bundle";
    report.text = "there is no bundle \"" + Printable(options.name) + "\", and no version of one is kept." +
                  SimilarName(store.Collection(), options.name);
    return Tell(report, EXIT_UNKNOWN_BUNDLE, options.common.json);
}

void WriteVersion(Output::JsonWriter& json, const Version& version)
{
    json.BeginObject();
    json.Member("number", version.number == 0 ? std::nullopt : std::optional(version.number));
    json.Member("in_force", version.isInForce);
    json.Member("installed", version.installed.empty() ? std::nullopt : std::optional(version.installed));
    json.Member("from", version.from.empty() ? std::nullopt : std::optional(version.from));
    json.Member("path", version.path).End();
}

/// For people.
std::string WhenInstalled(const Version& version)
{
    const Model::Time now = Model::Now();
    const auto time = Model::ParseLogTime(version.installed);
    return time ? Output::LocalTime(*time, now) + ", " + Output::Ago(*time, now) : "unknown";
}

int List(const Options& options, const std::vector<Version>& versions)
{
    if (options.common.json) {
        Output::JsonWriter json;
        json.BeginOutput("versions", Model::Now()).Member("bundle", Printable(options.name));
        json.Key("versions").BeginArray();
        for (const Version& version : versions) {
            WriteVersion(json, version);
        }
        json.End().End();
        std::cout << json.Text() << std::flush;
        return EXIT_DONE;
    }
    Output::Table table({"VERSION", "IN FORCE", "INSTALLED", "FROM"});
    for (const Version& version : versions) {
        table.Add({version.number == 0 ? "-" : std::to_string(version.number), version.isInForce ? "yes" : "",
                   WhenInstalled(version), version.from});
    }
    std::cout << table.Text(Output::AskTerminal()) << std::flush;
    return EXIT_DONE;
}

int RunVersions(const Options& options)
{
    const Store store(CollectionOf(options.common.choice), Store::READ);
    const std::string fault = store.FaultOfReading();
    if (!fault.empty()) {
        std::cerr << "bundlectl: " << fault << ".\n";
    }
    const std::string directory = DirectoryOf(store, options.name);
    if (directory.empty()) {
        return TellUnknown(options, store, "versions");
    }
    return List(options, Shelf(store, directory).Versions());
}

/// The requested version; otherwise the latest kept version that is earlier than the one in force.
int ChooseVersion(const Options& options, const std::vector<Version>& versions)
{
    if (options.to != 0) {
        return static_cast<int>(options.to);
    }
    const auto present = std::find_if(versions.begin(), versions.end(), [](const Version& v) { return v.isInForce; });
    const auto former = std::find_if(present == versions.end() ? versions.begin() : present, versions.end(),
                                     [](const Version& version) { return !version.isInForce; });
    if (former == versions.end()) {
        throw Refusal("no former version of \"" + Printable(options.name) + "\" is kept.");
    }
    return former->number;
}

int RunRollback(const Options& options)
{
    const Store store(CollectionOf(options.common.choice), Store::CHANGE);
    const StoreLock lock = LockStore(store, "rollback " + options.name, options.common);
    const std::string directory = DirectoryOf(store, options.name);
    if (directory.empty()) {
        return TellUnknown(options, store, "rollback");
    }
    Shelf shelf(store, directory);
    shelf.Tidy();
    const int number = ChooseVersion(options, shelf.Versions());
    const Model::Installation installation = FindServerOf(store.Collection(), options.common.choice);
    const Verdict verdict(installation);
    shelf.Restore(number);
    Report report;
    report.verb = "rollback";
    report.bundle = options.name;
    report.version = number;
    report.outcome = "installed";
    report.text = "version " + std::to_string(number) + " of \"" + Printable(options.name) + "\" is in place.";
    const auto patience = SpanOf(options.common.patience);
    if (!installation.server || patience.count() == 0) {
        return Tell(report, EXIT_DONE, options.common.json);
    }
    const Outcome outcome = verdict.Wait({options.name, directory}, patience, SpanOf(options.soak));
    if (outcome.kind == Outcome::ACTIVE) {
        report.outcome = "active";
        report.text = "version " + std::to_string(number) + " of \"" + Printable(options.name) + "\" is Active.";
        return Tell(report, EXIT_DONE, options.common.json);
    }
    report.outcome = outcome.kind == Outcome::UNKNOWN ? "unknown" : "failed";
    report.text += " It does not run, or that is not known. " + outcome.reason;
    return Tell(report,
                outcome.kind == Outcome::UNKNOWN      ? EXIT_UNREACHABLE
                : outcome.kind == Outcome::NO_VERDICT ? EXIT_TIMED_OUT
                                                      : EXIT_FAILED,
                options.common.json);
}

std::shared_ptr<Options> AddName(Arguments& arguments)
{
    auto options = std::make_shared<Options>();
    Argument name{"NAME", "the bundle's name, as in its manifest"};
    name.isRequired = true;
    arguments.Add(name, options->name);
    return options;
}

} // namespace

Action DefineRollback(Arguments& arguments)
{
    const auto options = AddName(arguments);
    Argument to{"--to", "the number of the version; without it, the one before the present", "N"};
    arguments.Add(to, options->to, 1, 1'000'000'000);
    Argument soak{"--soak", "how long its items must live", "TIME", FaultOfSpan};
    soak.standard = options->soak;
    arguments.Add(soak, options->soak);
    AddCommonOptions(arguments, options->common);
    return [options] {
        return Guarded("rollback", options->name, options->common.json, [&] { return RunRollback(*options); });
    };
}

Action DefineVersions(Arguments& arguments)
{
    const auto options = AddName(arguments);
    AddPlaceOptions(arguments, options->common);
    return [options] {
        return Guarded("versions", options->name, options->common.json, [&] { return RunVersions(*options); });
    };
}
