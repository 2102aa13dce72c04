#include "command.h"
#include "exit_status.h"
#include "model/attribution.h"
#include "model/log_access.h"
#include "model/log_follower.h"
#include "model/log_reader.h"
#include "model/recorder_file.h"
#include "model/status.h"
#include "output/json_writer.h"
#include "places.h"
#include "printable.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using Model::Fact;
using Model::LogLocation;
using Model::LogReader;
using Model::RecordedLaunch;

struct Options {
    Model::Choice choice;
    std::string file = Model::RECORDER_FILE;
    bool once = false;
    bool json = false;
};

constexpr std::chrono::milliseconds INTERVAL{500};

class Recorder {
public:
    explicit Recorder(const Options& options) : m_file(options.file), m_json(options.json), m_boot(Model::BootId()) {}

    /// Records the running items that are not in the file yet.
    void RecordAll(const Model::Snapshot& snapshot)
    {
        const std::vector<RecordedLaunch> known = m_file.Read();
        for (const Model::BundleProcess& process : snapshot.processes) {
            const bool isItem = process.role == Model::ProcessRole::ITEM && !process.bundle.empty();
            const bool isKnown = std::any_of(known.begin(), known.end(), [&](const RecordedLaunch& launch) {
                return launch.boot == m_boot && launch.pid == process.stat.pid &&
                       launch.startTicks == process.stat.startTicks;
            });
            if (isItem && !isKnown && snapshot.installation.server) {
                Append(process.stat, snapshot.installation.server->stat.pid, process.bundle, process.item);
            }
        }
    }

    void Take(const Fact& fact)
    {
        const auto stat = fact.kind == Fact::ITEM_LAUNCHED ? m_proc.Stat(fact.pid) : std::nullopt;
        // Another process may have the pid by now, so only a child of the server is recorded.
        if (stat && stat->parent == fact.server && !fact.bundle.empty()) {
            Append(*stat, fact.server, fact.bundle, fact.item);
        }
    }

    /// The errno of a failure of the file; 0: none.
    int Error() const { return m_error; }

    /// False after a failure of the file or of standard output.
    bool IsGood() const { return m_error == 0 && m_status == EXIT_DONE; }

    /// The exit status for what has happened to standard output.
    int Status() const { return m_status; }

private:
    void Append(const Model::ProcessStat& stat, pid_t server, const std::string& bundle, const std::string& item)
    {
        if (!m_file.Append({m_boot, stat.pid, stat.startTicks, server, bundle, item})) {
            m_error = errno;
        } else if (m_json) {
            Print(stat, server, bundle, item);
        }
    }

    void Print(const Model::ProcessStat& stat, pid_t server, const std::string& bundle, const std::string& item)
    {
        Output::JsonWriter json;
        json.BeginOutput("record", Model::Now()).Member("bundle", bundle).Member("item", item);
        json.Member("pid", stat.pid).Member("started", m_proc.StartTime(stat)).Member("server", server).End();
        if (m_status == EXIT_DONE) {
            m_status = Verbs::Print(json.Text(), EXIT_DONE);
        }
    }

    const Model::RecorderFile m_file;
    const bool m_json;
    const std::string m_boot;
    const Model::Proc m_proc;
    int m_error = 0;
    int m_status = EXIT_DONE;
};

int Failed(const std::string& file, int error)
{
    std::cerr << "bundlectl: " << Printable(file) << " cannot be written: " << std::strerror(error)
              << ". Make its directory, or name another file with --file.\n";
    return EXIT_FAILED;
}

/// Never null. A file is followed across its rotation.
std::unique_ptr<Model::LogSource> Follow(const LogLocation& log)
{
    if (log.kind == LogLocation::FILE) {
        return std::make_unique<Model::LogFollower>(log.path);
    }
    return Model::OpenLog(log, {Model::Now(), 0, true});
}

/// Only a file can be followed beyond its end. Returns the exit status.
int EndOfLog(const LogReader& reader)
{
    Verbs::TellNotes(reader.Troubles());
    std::cerr << "bundlectl: the log has ended, so no further launch can be recorded. Start the recorder again.\n";
    return EXIT_UNREACHABLE;
}

// A signal may end it at any moment, because a launch is appended by one write.
int Record(const Options& options)
{
    Recorder recorder(options);
    const LogLocation log = Model::FindInstallation(options.choice, Model::Proc()).log;
    // Opened before the running items are read, so that no launch is missed in between.
    LogReader reader(Follow(options.once ? LogLocation() : log), LogReader::LastLine::LEAVE);
    Model::Attribution attribution([&recorder](const Fact& fact) { recorder.Take(fact); });
    const auto snapshot = Model::TakeSnapshot(options.choice, Model::LogDepth::SERVER);
    for (const Model::DeclaredBundle& bundle : snapshot->collection.bundles) {
        std::vector<std::string> items;
        for (const Model::DeclaredItem& item : bundle.items) {
            items.push_back(item.name);
        }
        attribution.Know(bundle.name, bundle.loggedPath, items);
    }
    recorder.RecordAll(*snapshot);
    if (options.once ? !snapshot->installation.server : log.kind == LogLocation::NOWHERE) {
        Verbs::TellNotes(snapshot->notes);
        std::cerr << (options.once ? "bundlectl: no bundle server runs.\n" : "");
        return EXIT_UNREACHABLE;
    }
    while (!options.once && recorder.IsGood()) {
        ReadAll(reader, attribution);
        if (log.kind != LogLocation::FILE && recorder.IsGood()) {
            return EndOfLog(reader);
        }
        std::this_thread::sleep_for(INTERVAL);
    }
    return recorder.Error() == 0 ? recorder.Status() : Failed(options.file, recorder.Error());
}

} // namespace

Action DefineRecord(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    Argument file{"--file", "the file of launches", "FILE"};
    file.standard = Model::RECORDER_FILE;
    arguments.Add(file, options->file);
    arguments.AddFlag("--once", "record what runs now, and end", options->once);
    Verbs::AddJson(arguments, options->json);
    Verbs::AddPlaces(arguments, options->choice);
    return [options] { return Record(*options); };
}
