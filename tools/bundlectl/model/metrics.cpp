#include "metrics.h"

#include <algorithm>
#include <array>

namespace Model {

namespace {

double Seconds(Microseconds span)
{
    constexpr double microsecond = 1e-6;
    return static_cast<double>(span.count()) * microsecond;
}

double Truth(bool value)
{
    return value ? 1 : 0;
}

/// Collects the metrics. Omits a metric without a sample.
class Collector {
public:
    Metric& New(const char* name, const char* help, bool isCounter = false)
    {
        return m_metrics.emplace_back(Metric{name, isCounter, help, {}});
    }
    void Add(const char* name, const char* help, double value) { New(name, help).samples.push_back({{}, value}); }
    std::vector<Metric> Take()
    {
        m_metrics.erase(std::remove_if(m_metrics.begin(), m_metrics.end(),
                                       [](const Metric& metric) { return metric.samples.empty(); }),
                        m_metrics.end());
        return std::move(m_metrics);
    }

private:
    std::vector<Metric> m_metrics;
};

void AddServer(Collector& collector, const Snapshot& snapshot, const Proc& proc)
{
    const auto& server = snapshot.installation.server;
    collector.Add("bundle_server_up", "Whether a bundle server runs.", Truth(server.has_value()));
    if (!server) {
        return;
    }
    if (server->isReadable) {
        collector.Add("bundle_server_serving", "Whether its socket answers.", Truth(server->isServing));
    }
    collector.Add("bundle_server_uptime_seconds", "For how long it has run.", Seconds(proc.Uptime(server->stat)));
    if (snapshot.server == nullptr) {
        return;
    }
    const ServerHistory& history = *snapshot.server;
    collector.Add("bundle_server_monitor_dead", "Whether its monitor has died: no item is launched again.",
                  Truth(history.monitor == ServerHistory::Monitor::DIED));
    Microseconds held{};
    for (const auto& [thread, script] : history.running) {
        held = std::max(held, snapshot.taken - script.began);
    }
    collector.Add("bundle_server_manager_held_seconds", "For how long a script has held its manager.", Seconds(held));
}

void AddStrays(Collector& collector, const Snapshot& snapshot)
{
    const auto count = [&snapshot](ProcessRole role) {
        return static_cast<double>(
            std::count_if(snapshot.processes.begin(), snapshot.processes.end(),
                          [role](const BundleProcess& process) { return process.role == role; }));
    };
    collector.Add("bundle_orphans", "Processes that a former server has left.", count(ProcessRole::LEFT_OVER));
    collector.Add("bundle_escaped_processes", "Processes of items that the server no longer supervises.",
                  count(ProcessRole::ESCAPED));
}

void AddStates(Collector& collector, const std::vector<BundleStatus>& bundles)
{
    constexpr std::array<BundleState, 6> states{BundleState::INSTALLED, BundleState::RESOLVED, BundleState::STARTING,
                                                BundleState::ACTIVE,    BundleState::STOPPING, BundleState::UNKNOWN};
    Metric& metric = collector.New("bundles", "Bundles by state.");
    for (const BundleState state : states) {
        const auto count = std::count_if(bundles.begin(), bundles.end(),
                                         [state](const BundleStatus& bundle) { return bundle.state == state; });
        metric.samples.push_back({{{"state", NameOf(state)}}, static_cast<double>(count)});
    }
}

void AddBundles(Collector& collector, const Snapshot& snapshot, const std::vector<BundleStatus>& bundles)
{
    Metric active{"bundle_active", false, "Whether the bundle is Active.", {}};
    Metric healthy{"bundle_healthy", false, "Whether it is Active with all of its items up.", {}};
    Metric scripts{"bundle_script_seconds", true, "For how long its scripts have run.", {}};
    Microseconds lag{};
    for (const BundleStatus& bundle : bundles) {
        const std::pair<const char*, std::string> name{"bundle", bundle.name.empty() ? bundle.path : bundle.name};
        active.samples.push_back({{name}, Truth(bundle.state == BundleState::ACTIVE)});
        healthy.samples.push_back({{name}, Truth(bundle.IsHealthy())});
        if (bundle.isChanged && bundle.declared != nullptr) {
            lag = std::max(lag, snapshot.taken - bundle.declared->changed);
        }
        if (bundle.history != nullptr) {
            for (const auto& [script, time] : bundle.history->scriptTimes) {
                scripts.samples.push_back({{name, {"script", script}}, Seconds(time)});
            }
        }
    }
    collector.New("", "") = std::move(active);
    collector.New("", "") = std::move(healthy);
    collector.New("", "") = std::move(scripts);
    collector.Add("bundle_server_scan_lag_seconds", "The age of the oldest change that it has not taken in.",
                  Seconds(lag));
}

void AddItems(Collector& collector, const std::vector<BundleStatus>& bundles, const Proc& proc)
{
    Metric up{"bundle_item_up", false, "Whether the item is up.", {}};
    Metric loop{"bundle_item_crash_loop", false, "Whether it dies again and again.", {}};
    Metric starts{"bundle_item_starts", true, "How often it was launched.", {}};
    Metric relaunches{"bundle_item_relaunches", true, "How often it was launched again after a death.", {}};
    Metric ends{"bundle_item_ends", true, "How often it has ended, by signal or status.", {}};
    Metric memory{"bundle_item_pss_bytes", false, "The proportional share of memory of its process.", {}};
    for (const BundleStatus& bundle : bundles) {
        for (const ItemStatus& item : bundle.items) {
            const MetricSample::Labels labels{{"bundle", bundle.name}, {"item", item.name}};
            up.samples.push_back({labels, Truth(item.up == ItemStatus::UP || item.up == ItemStatus::ACTIVATED)});
            loop.samples.push_back({labels, Truth(item.isCrashLooping)});
            if (item.history != nullptr) {
                starts.samples.push_back({labels, static_cast<double>(item.history->launches)});
                relaunches.samples.push_back({labels, static_cast<double>(item.history->relaunches)});
                for (const auto& [cause, count] : item.history->endCounts) {
                    MetricSample::Labels withCause = labels;
                    withCause.emplace_back("cause", cause);
                    ends.samples.push_back({withCause, static_cast<double>(count)});
                }
            }
            const auto kilobytes = item.process != nullptr ? proc.ProportionalKilobytes(item.pid) : std::nullopt;
            if (kilobytes) {
                constexpr double kilobyte = 1024;
                memory.samples.push_back({labels, static_cast<double>(*kilobytes) * kilobyte});
            }
        }
    }
    for (Metric* const metric : {&up, &loop, &starts, &relaunches, &ends, &memory}) {
        collector.New("", "") = std::move(*metric);
    }
}

} // namespace

std::vector<Metric> MetricsOf(const Snapshot& snapshot, const std::vector<BundleStatus>& bundles, const Proc& proc)
{
    Collector collector;
    AddServer(collector, snapshot, proc);
    AddStrays(collector, snapshot);
    AddStates(collector, bundles);
    AddBundles(collector, snapshot, bundles);
    AddItems(collector, bundles, proc);
    return collector.Take();
}

} // namespace Model
