#include "drilled_bundle.h"

#include "private_run.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>

namespace Trials {

namespace {

using Clock = std::chrono::steady_clock;

DrilledBundle::Item ItemOf(const Model::ItemStatus& status)
{
    DrilledBundle::Item item;
    item.name = status.name;
    item.isThread = status.isThread;
    item.isUp = status.up == Model::ItemStatus::UP || status.up == Model::ItemStatus::ACTIVATED;
    item.pid = status.pid;
    if (status.history != nullptr) {
        item.since = status.history->since;
        item.launches = status.history->launches;
        item.ends = status.history->ends;
    }
    return item;
}

/// Whether each item has been started again.
bool IsRenewed(const DrilledBundle::Moment& before, const DrilledBundle::Moment& now)
{
    return now.isUp && std::all_of(now.items.begin(), now.items.end(), [&before](const DrilledBundle::Item& item) {
               const DrilledBundle::Item* const former = before.Find(item.name);
               // A thread that has ended has no number any more.
               return former == nullptr ||
                      (item.isThread ? former->launches != item.launches : former->pid != item.pid);
           });
}

/// The server opens its last descriptors after it has started the bundles.
bool IsStarted(const Model::Snapshot& snapshot)
{
    return snapshot.server != nullptr && (snapshot.server->serving || snapshot.server->hasNoService);
}

} // namespace

const Model::ItemEnd* DrilledBundle::Item::EndOf(pid_t process) const
{
    const auto found =
        std::find_if(ends.rbegin(), ends.rend(), [process](const Model::ItemEnd& end) { return end.pid == process; });
    return found == ends.rend() ? nullptr : &*found;
}

bool DrilledBundle::Moment::IsOfThreads() const
{
    return std::any_of(items.begin(), items.end(), [](const Item& item) { return item.isThread; });
}

const DrilledBundle::Item* DrilledBundle::Moment::Find(const std::string& item) const
{
    const auto found =
        std::find_if(items.begin(), items.end(), [&item](const Item& other) { return other.name == item; });
    return found == items.end() ? nullptr : &*found;
}

DrilledBundle::Moment DrilledBundle::Look()
{
    const std::string end = m_server.TakeEnd();
    if (!end.empty()) {
        throw DrillEnded("The server has ended by itself: " + end + ".");
    }
    const auto snapshot = m_server.Look();
    Moment moment;
    moment.state = UNKNOWN;
    for (const Model::BundleStatus& bundle : Model::StatusOf(*snapshot)) {
        if (bundle.path != m_path) {
            continue;
        }
        moment.state = Model::NameOf(bundle.state);
        moment.isUp =
            bundle.state == Model::BundleState::ACTIVE && bundle.itemsUp == bundle.items.size() && IsStarted(*snapshot);
        for (const Model::ItemStatus& item : bundle.items) {
            moment.items.push_back(ItemOf(item));
        }
    }
    moment.runsScript = snapshot->server != nullptr && !snapshot->server->running.empty();
    return moment;
}

void DrilledBundle::Wait(Milliseconds moment)
{
    if (!Pause(moment)) {
        throw DrillEnded("It was ended before it was done.");
    }
}

bool DrilledBundle::WaitUntil(const std::function<bool(const Moment&)>& condition, Milliseconds patience)
{
    constexpr Milliseconds step(50);
    const Clock::time_point end = Clock::now() + patience;
    while (!condition(Look())) {
        if (Clock::now() >= end) {
            return false;
        }
        Wait(step);
    }
    return true;
}

bool DrilledBundle::WaitForRenewal(const Moment& before, Milliseconds patience)
{
    return WaitUntil([&before](const Moment& now) { return IsRenewed(before, now); }, patience);
}

std::string DrilledBundle::WaitForServersEnd(Milliseconds patience)
{
    constexpr Milliseconds step(20);
    const Clock::time_point end = Clock::now() + patience;
    while (m_server.TakeEnd().empty() && Clock::now() < end) {
        Wait(step);
    }
    return m_server.TakeEnd();
}

bool DrilledBundle::StartServer(Milliseconds patience)
{
    m_server.Start();
    return WaitUntil([](const Moment& now) { return now.isUp; }, patience);
}

// A bundle with a child that has just died cannot be stopped, so one try may not do.
bool DrilledBundle::Restart(Milliseconds patience)
{
    constexpr Milliseconds oneTry(6000);
    const Clock::time_point end = Clock::now() + patience;
    const Moment before = Look();
    bool isRenewed = false;
    while (!isRenewed && Clock::now() < end) {
        ::utimensat(AT_FDCWD, m_path.c_str(), nullptr, 0);
        const auto left = std::chrono::ceil<Milliseconds>(end - Clock::now());
        isRenewed = WaitForRenewal(before, std::min(left, oneTry));
    }
    return isRenewed;
}

} // namespace Trials
