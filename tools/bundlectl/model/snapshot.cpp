#include "status.h"

#include "log_access.h"
#include "log_reader.h"
#include "recorder_file.h"

#include <algorithm>
#include <utility>

namespace Model {

namespace {

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
    if (!snapshot->installation.collection.empty()) {
        snapshot->collection = ReadCollection(snapshot->installation.collection, snapshot->installation.base);
    }
    ReadHistory(*snapshot, depth);
    ReadProcesses(*snapshot, snapshot->installation.others, proc);
    return snapshot;
}

} // namespace Model
