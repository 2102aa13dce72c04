#include "status_view.h"

#include "model/reasons.h"
#include "model/sockets.h"
#include "output/table.h"
#include "output/times.h"
#include "places.h"

#include <algorithm>

namespace Verbs {

using Model::BundleState;
using Model::BundleStatus;
using Model::ItemStatus;
using Model::Snapshot;
using Output::Colour;
using Output::Mark;
using Output::Table;
using Output::Terminal;

namespace {

std::string ItemsUp(const BundleStatus& bundle)
{
    return std::to_string(bundle.itemsUp) + "/" + std::to_string(bundle.items.size());
}

// A healthy bundle needs no words.
std::string BriefReason(const Snapshot& snapshot, const BundleStatus& bundle)
{
    std::string brief;
    for (const Model::Reason& reason : Model::ReasonsOf(snapshot, bundle, false)) {
        const bool isOfServer = std::string_view(reason.kind) == "server-down"; // shown above the table
        if (!reason.brief.empty() && !isOfServer) {
            brief += (brief.empty() ? "" : "; ") + reason.brief;
        }
    }
    return brief;
}

std::string ServerLine(const Snapshot& snapshot)
{
    const auto& server = snapshot.installation.server;
    if (!server) {
        return "No bundle server runs.\n";
    }
    const Model::Microseconds runs = Model::Proc().Uptime(server->stat);
    std::string line = "Server " + std::to_string(server->stat.pid) + " has run for " + Model::SpanText(runs);
    if (snapshot.server != nullptr && !snapshot.server->ready && snapshot.server->isWhole) {
        line += " and is still starting";
    }
    if (!server->isServing && server->isReadable) {
        line += "; it serves no requests";
    }
    if (snapshot.server != nullptr && snapshot.server->monitor == Model::ServerHistory::Monitor::DIED) {
        line += "; its monitor has ended, and no item is run again";
    }
    return line + ".\n";
}

std::string SumLine(const std::vector<BundleStatus>& bundles)
{
    const auto healthy =
        std::count_if(bundles.begin(), bundles.end(), [](const BundleStatus& bundle) { return bundle.IsHealthy(); });
    std::string line = std::to_string(healthy) + " of " + std::to_string(bundles.size());
    line += bundles.size() == 1 ? " bundle is" : " bundles are";
    line += " Active with all items up.";
    for (const BundleStatus& bundle : bundles) {
        if (!bundle.IsHealthy()) {
            return line + " More: bundlectl why " + NameToShow(bundle) + "\n";
        }
    }
    return line + "\n";
}

/// The resources that an item uses.
struct Usage {
    std::string uptime;
    std::string cpu;
    std::string memory;
    std::string descriptors;
    std::vector<std::string> sockets;
};

Usage UsageOf(const Model::Proc& proc, const ItemStatus& item, const Model::Sockets& sockets)
{
    Usage usage;
    const Model::ProcessStat* const stat = item.process != nullptr ? &item.process->stat : item.thread;
    if (stat == nullptr) {
        return usage;
    }
    usage.uptime = Model::SpanText(proc.Uptime(*stat));
    usage.cpu = Model::SpanText(Model::Proc::CpuTime(*stat));
    if (item.process == nullptr) {
        return usage; // a thread shares all else with the server
    }
    const auto memory = proc.ProportionalKilobytes(stat->pid);
    usage.memory = memory ? Output::Size(*memory) : "?";
    const auto descriptors = proc.Descriptors(stat->pid);
    usage.descriptors = descriptors ? std::to_string(descriptors->size()) : "?";
    usage.sockets = sockets.Of(stat->pid);
    return usage;
}

std::string NameOfUp(const ItemStatus& item)
{
    switch (item.up) {
    case ItemStatus::UP:
        return item.isCrashLooping ? "crash loop" : "up";
    case ItemStatus::ACTIVATED:
        return "activated";
    case ItemStatus::DOWN:
        return item.isCrashLooping ? "crash loop" : "down";
    case ItemStatus::UNKNOWN:
        break;
    }
    return "unknown";
}

Colour ColourOfItem(const ItemStatus& item)
{
    const bool isUp = item.up == ItemStatus::UP || item.up == ItemStatus::ACTIVATED;
    return item.isCrashLooping || !isUp ? Colour::BAD : Colour::GOOD;
}

std::string LastEnd(const ItemStatus& item, Model::Time now)
{
    if (item.history == nullptr || item.history->ends.empty()) {
        return {};
    }
    const Model::ItemEnd& end = item.history->ends.back();
    return Model::NameOfEnd(end) + (end.isSignal ? " " : ", ") + Output::Ago(end.time, now);
}

std::string Field(const std::string& name, const std::string& value)
{
    constexpr std::size_t width = 11;
    return value.empty() ? std::string()
                         : name + std::string(width - std::min(name.size(), width - 1), ' ') + value + "\n";
}

std::string Join(const std::vector<std::string>& names)
{
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

std::string ItemsTable(const Snapshot& snapshot, const BundleStatus& bundle, const Terminal& terminal)
{
    const Model::Proc proc;
    const auto& server = snapshot.installation.server;
    const Model::Sockets sockets(proc, server ? server->stat.pid : 1);
    Table table({"ITEM", "STATE", bundle.mode == 1 ? "THREAD" : "PID", "UP FOR", "CPU", "PSS", "FDS", "RELAUNCHES/H",
                 "LAST END", "SOCKETS"});
    for (const ItemStatus& item : bundle.items) {
        const Usage usage = UsageOf(proc, item, sockets);
        table.Add({{Output::Shown(terminal, item.name), Colour::STRONG},
                   {NameOfUp(item), ColourOfItem(item)},
                   item.pid == 0 ? std::string() : std::to_string(item.pid),
                   usage.uptime,
                   usage.cpu,
                   usage.memory,
                   usage.descriptors,
                   item.relaunches == 0 ? std::string() : std::to_string(item.relaunches),
                   LastEnd(item, snapshot.taken),
                   Output::Shown(terminal, Join(usage.sockets))});
    }
    return bundle.items.empty() ? "It has no items.\n" : table.Text(terminal);
}

} // namespace

Mark MarkOf(const BundleStatus& bundle)
{
    if (bundle.IsHealthy()) {
        return bundle.isChanged || bundle.isProgramReplaced ? Mark::WARNING : Mark::GOOD;
    }
    return bundle.state == BundleState::UNKNOWN ? Mark::UNKNOWN : Mark::BAD;
}

Colour ColourOf(const BundleStatus& bundle)
{
    if (bundle.IsHealthy()) {
        return Colour::GOOD;
    }
    return bundle.state == BundleState::UNKNOWN ? Colour::FAINT : Colour::BAD;
}

std::string NameOfState(const BundleStatus& bundle)
{
    return bundle.state == BundleState::GONE ? "not loaded" : Model::NameOf(bundle.state);
}

std::string StatusTable(const Snapshot& snapshot, const std::vector<BundleStatus>& bundles, const Terminal& terminal)
{
    std::string text = ServerLine(snapshot);
    if (bundles.empty() && !snapshot.IsCollectionRead()) {
        return text;
    }
    if (bundles.empty()) {
        return text + "There are no bundles in " + Output::Shown(terminal, snapshot.collection.path) + ".\n";
    }
    Table table({" ", "BUNDLE", "STATE", "MODE", "ITEMS", "RELAUNCHES/H", "FOR", "REASON"}, Table::Last::BELOW);
    for (const BundleStatus& bundle : bundles) {
        Terminal plain = terminal;
        plain.hasColour = false;
        table.Add({{Output::Sign(plain, MarkOf(bundle)), ColourOf(bundle)},
                   {Output::Shown(terminal, NameToShow(bundle)), Colour::STRONG},
                   {NameOfState(bundle), ColourOf(bundle)},
                   bundle.mode ? NameOfMode(*bundle.mode) : "?",
                   {ItemsUp(bundle), bundle.itemsUp < bundle.items.size() ? Colour::BAD : Colour::NONE},
                   bundle.relaunches == 0 ? std::string() : std::to_string(bundle.relaunches),
                   bundle.since ? Model::SpanText(snapshot.taken - *bundle.since) : std::string(),
                   Output::Shown(terminal, BriefReason(snapshot, bundle))});
    }
    return text + table.Text(terminal) + SumLine(bundles);
}

std::string StatusDetails(const Snapshot& snapshot, const BundleStatus& bundle, const Terminal& terminal)
{
    std::string text = Output::Sign(terminal, MarkOf(bundle)) + " " +
                       Output::Paint(terminal, Colour::STRONG, Output::Shown(terminal, NameToShow(bundle))) + " is " +
                       Output::Paint(terminal, ColourOf(bundle), NameOfState(bundle)) +
                       (bundle.since ? ", since " + Output::LocalTime(*bundle.since, snapshot.taken) : std::string()) +
                       ", " + ItemsUp(bundle) + " items up.\n";
    text += Field("Directory", Output::Shown(terminal, bundle.path));
    text += Field("Mode", bundle.mode ? NameOfMode(*bundle.mode) : "unknown");
    text += Field("Requires", Output::Shown(terminal, Join(bundle.declared != nullptr  ? bundle.declared->required
                                                           : bundle.history != nullptr ? bundle.history->required
                                                                                       : std::vector<std::string>())));
    for (const Model::Reason& reason : Model::ReasonsOf(snapshot, bundle, false)) {
        if (!reason.brief.empty()) {
            text += Field("Reason", Output::Shown(terminal, reason.text));
        }
    }
    return text + ItemsTable(snapshot, bundle, terminal);
}

} // namespace Verbs
