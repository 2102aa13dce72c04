#include "status.h"

#include "log_access.h"
#include "log_reader.h"
#include "printable.h"
#include "recorder_file.h"

#include <algorithm>
#include <utility>

namespace Model {

namespace {

void FindCollection(Snapshot& snapshot)
{
    const Installation& installation = snapshot.installation;
    const std::string wayOut = " --collection DIR names it.";
    if (installation.collection.empty()) {
        snapshot.notes.push_back("The collection is not known: the configuration " +
                                 Printable(installation.configuration) +
                                 " cannot be read: " + installation.settings.trouble + "." + wayOut);
        return;
    }
    snapshot.collection = ReadCollection(installation.collection, installation.base);
    if (!snapshot.collection.trouble.empty()) {
        snapshot.notes.push_back("The collection " + Printable(snapshot.collection.path) +
                                 " cannot be read: " + snapshot.collection.trouble + "." + wayOut);
    }
}

void ReadHistory(Snapshot& snapshot, LogDepth depth)
{
    const Installation& installation = snapshot.installation;
    if (depth == LogDepth::NOTHING || installation.log.kind == LogLocation::NOWHERE) {
        return;
    }
    LogPart part;
    part.server = depth == LogDepth::SERVER && installation.server ? installation.server->stat.pid : 0;
    Attribution attribution([&snapshot](const Fact& fact) { snapshot.history.Take(fact); });
    for (const DeclaredBundle& bundle : snapshot.collection.bundles) {
        if (bundle.verdict != Verdict::DUPLICATE && !bundle.name.empty()) {
            std::vector<std::string> items;
            for (const DeclaredItem& item : bundle.items) {
                items.push_back(item.name);
            }
            attribution.Know(bundle.name, bundle.loggedPath, items);
        }
    }
    LogReader reader(OpenLog(installation.log, part));
    ReadAll(reader, attribution);
    for (const std::string& trouble : reader.Troubles()) {
        snapshot.notes.push_back(trouble);
    }
    if (installation.server) {
        snapshot.server = snapshot.history.Find(installation.server->stat.pid);
    }
}

void ReadProcesses(Snapshot& snapshot, const std::vector<ServerProcess>& others, const Proc& proc)
{
    const Installation& installation = snapshot.installation;
    const std::vector<RecordedLaunch> recorded = RecorderFile(RECORDER_FILE).Read();
    ProcessSources sources(proc);
    sources.server = installation.server ? &*installation.server : nullptr;
    sources.others = &others;
    sources.collection = &snapshot.collection;
    sources.history = snapshot.server;
    sources.all = &snapshot.history;
    sources.recorded = &recorded;
    sources.base = installation.base;
    snapshot.processes = FindProcesses(sources);
    if (sources.server != nullptr) {
        snapshot.threads = proc.Threads(sources.server->stat.pid);
    }
}

} // namespace

std::unique_ptr<Snapshot> TakeSnapshot(const Choice& choice, LogDepth depth, const Proc& proc)
{
    auto snapshot = std::make_unique<Snapshot>();
    snapshot->taken = Now();
    snapshot->installation = FindInstallation(choice, proc);
    snapshot->notes = snapshot->installation.notes;
    FindCollection(*snapshot);
    ReadHistory(*snapshot, depth);
    ReadProcesses(*snapshot, snapshot->installation.others, proc);
    return snapshot;
}

} // namespace Model
