#include "status_view.h"

#include "model/reasons.h"
#include "model/sockets.h"
#include "output/json_writer.h"
#include "places.h"

namespace Verbs {

using Model::BundleStatus;
using Model::ItemStatus;
using Output::JsonWriter;

namespace {

const char* NameOfUp(ItemStatus::Up up)
{
    constexpr const char* names[] = {"down", "up", "activated", "unknown"};
    return names[up];
}

void WriteEnd(JsonWriter& json, const Model::ItemHistory* history)
{
    json.Key("last_end");
    if (history == nullptr || history->ends.empty()) {
        json.Null();
        return;
    }
    const Model::ItemEnd& end = history->ends.back();
    json.BeginObject().Member("time", end.time).Member("pid", end.pid);
    json.Member(end.isSignal ? "signal" : "status", end.number);
    json.Member("name", Model::NameOfEnd(end)).End();
}

void WriteUsage(JsonWriter& json, const ItemStatus& item, const Model::Sockets& sockets)
{
    const Model::Proc proc;
    const Model::ProcessStat* const stat = item.process != nullptr ? &item.process->stat : item.thread;
    if (stat == nullptr) {
        return;
    }
    json.Member("up_seconds", proc.Uptime(*stat)).Member("cpu_seconds", Model::Proc::CpuTime(*stat));
    if (item.process == nullptr) {
        return;
    }
    const auto descriptors = proc.Descriptors(stat->pid);
    json.Member("pss_kib", proc.ProportionalKilobytes(stat->pid));
    json.Member("descriptors", descriptors ? std::optional(descriptors->size()) : std::nullopt);
    json.Key("sockets").BeginArray();
    for (const std::string& socket : sockets.Of(stat->pid)) {
        json.Value(socket);
    }
    json.End();
}

void WriteItem(JsonWriter& json, const ItemStatus& item, const Model::Sockets* sockets)
{
    json.BeginObject().Member("name", item.name).Member("state", NameOfUp(item.up));
    json.Member("pid", item.pid == 0 ? std::nullopt : std::optional(item.pid)).Member("is_thread", item.isThread);
    json.Member("launches", item.history != nullptr ? item.history->launches : 0);
    json.Member("relaunches_last_hour", item.relaunches).Member("crash_loop", item.isCrashLooping);
    json.Key("further_pids").BeginArray();
    for (const pid_t pid : item.further) {
        json.Value(pid);
    }
    json.End();
    WriteEnd(json, item.history);
    if (sockets != nullptr) {
        WriteUsage(json, item, *sockets);
    }
    json.End();
}

void WriteReasons(JsonWriter& json, const Model::Snapshot& snapshot, const BundleStatus& bundle)
{
    json.Key("reasons").BeginArray();
    for (const Model::Reason& reason : Model::ReasonsOf(snapshot, bundle, false)) {
        json.BeginObject().Member("kind", reason.kind).Member("text", reason.text).End();
    }
    json.End();
}

void WriteBundle(JsonWriter& json, const Model::Snapshot& snapshot, const BundleStatus& bundle,
                 const Model::Sockets* sockets)
{
    json.BeginObject().Member("name", bundle.name.empty() ? std::nullopt : std::optional(bundle.name));
    json.Member("path", bundle.path).Member("state", NameOfState(bundle)).Member("since", bundle.since);
    json.Member("mode", bundle.mode ? std::optional(NameOfMode(*bundle.mode)) : std::nullopt);
    json.Member("healthy", bundle.IsHealthy());
    json.Member("items_up", bundle.itemsUp).Member("items_all", bundle.items.size());
    json.Member("relaunches_last_hour", bundle.relaunches).Member("crash_loop", bundle.isCrashLooping);
    json.Member("directory_gone", bundle.isDirectoryGone).Member("changed_since_load", bundle.isChanged);
    json.Member("program_replaced", bundle.isProgramReplaced).Member("runs_twice", bundle.runsTwice);
    json.Key("items").BeginArray();
    for (const ItemStatus& item : bundle.items) {
        WriteItem(json, item, sockets);
    }
    json.End();
    WriteReasons(json, snapshot, bundle);
    json.End();
}

void WriteServer(JsonWriter& json, const Model::Snapshot& snapshot)
{
    const auto& server = snapshot.installation.server;
    json.Key("server");
    if (!server) {
        json.Null();
        return;
    }
    const auto* const history = snapshot.server;
    json.BeginObject().Member("pid", server->stat.pid);
    json.Member("up_seconds", Model::Proc().Uptime(server->stat));
    json.Member("serving", server->isReadable ? std::optional(server->isServing) : std::nullopt);
    json.Member("ready", history != nullptr ? history->ready : std::nullopt).End();
}

} // namespace

std::string StatusJson(const Model::Snapshot& snapshot, const std::vector<const BundleStatus*>& bundles,
                       bool withDetails)
{
    const Model::Proc proc;
    const auto& server = snapshot.installation.server;
    std::optional<Model::Sockets> sockets;
    if (withDetails) {
        sockets.emplace(proc, server ? server->stat.pid : 1);
    }
    JsonWriter json;
    json.BeginOutput("status", snapshot.taken);
    WriteServer(json, snapshot);
    json.Member("collection", snapshot.collection.path);
    json.Key("bundles").BeginArray();
    for (const BundleStatus* const bundle : bundles) {
        WriteBundle(json, snapshot, *bundle, sockets ? &*sockets : nullptr);
    }
    json.End();
    json.Key("notes").BeginArray();
    for (const std::string& note : snapshot.notes) {
        json.Value(note);
    }
    json.End().End();
    return json.Text();
}

} // namespace Verbs
