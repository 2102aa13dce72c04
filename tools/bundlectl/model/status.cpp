#include "status.h"

#include "files.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace Model {

namespace {

constexpr int THREAD_MODE = 1;

/// Three relaunches within a minute, or five within ten minutes: the item dies after each launch.
bool IsCrashLoop(const ItemHistory& item, Time now)
{
    return item.RelaunchesSince(now - std::chrono::minutes(1)) >= 3 ||
           item.RelaunchesSince(now - std::chrono::minutes(10)) >= 5;
}

/// The name of an item's thread, cut to the kernel's maximum.
std::string ThreadName(const std::string& bundle, const std::string& item)
{
    constexpr std::size_t kept = 15;
    return (bundle + "." + item).substr(0, kept);
}

/// Collects what is known of one bundle.
class Assembly {
public:
    Assembly(const Snapshot& snapshot, BundleStatus& bundle) : m_snapshot(snapshot), m_bundle(bundle) {}

    void Run();

private:
    void TakeState();
    bool HasChanged() const;
    void AddItems();
    void AddDeclared(const DeclaredItem& item);
    void Fill(ItemStatus& item) const;
    void FindProcessesOf(ItemStatus& item) const;
    void FindThreadOf(ItemStatus& item) const;
    void Sum();

    const Snapshot& m_snapshot;
    BundleStatus& m_bundle;
};

void Assembly::Run()
{
    TakeState();
    AddItems();
    for (ItemStatus& item : m_bundle.items) {
        Fill(item);
    }
    Sum();
}

void Assembly::TakeState()
{
    const BundleHistory* const history = m_bundle.history;
    if (history != nullptr) {
        m_bundle.state = history->state;
        m_bundle.since = history->since;
        m_bundle.mode = history->mode;
    } else if (m_snapshot.server != nullptr && m_snapshot.server->isWhole) {
        m_bundle.state = BundleState::GONE; // the server has never loaded it
    }
    if (!m_bundle.mode && m_bundle.declared != nullptr && !m_bundle.name.empty()) {
        m_bundle.mode = m_bundle.declared->mode;
    }
    m_bundle.isDirectoryGone = m_bundle.declared == nullptr;
    m_bundle.isChanged = m_bundle.declared != nullptr && m_bundle.state != BundleState::GONE && HasChanged();
}

// Compares with the time when the manifest in force was read, and when the bundle's own scripts last ran. The server
// accepts what these write.
bool Assembly::HasChanged() const
{
    const BundleHistory* const history = m_bundle.history;
    if (history == nullptr || !history->manifestRead) {
        return false;
    }
    Time known = *history->manifestRead;
    for (const ScriptRun& script : history->scripts) {
        known = std::max(known, script.began + script.took.value_or(Microseconds(0)));
    }
    constexpr std::chrono::seconds settling(3);
    constexpr Time clockIsSet{std::chrono::seconds(1'577'836'800)}; // 2020: an earlier clock has not been set yet
    return known > clockIsSet && m_bundle.declared->changed > known + settling;
}

// The items of the running server if the log has its manifest, which may have changed since. If the beginning of the
// log is lost, the log does not mention all items.
void Assembly::AddItems()
{
    const BundleHistory* const history = m_bundle.history;
    if (history != nullptr) {
        for (const ItemHistory& item : history->items) {
            if (item.isInManifest || item.pid != 0) {
                m_bundle.items.emplace_back();
                m_bundle.items.back().name = item.name;
                m_bundle.items.back().history = &item;
            }
        }
    }
    if (m_bundle.declared != nullptr && (history == nullptr || !history->manifestRead)) {
        for (const DeclaredItem& item : m_bundle.declared->items) {
            AddDeclared(item);
        }
    }
}

void Assembly::AddDeclared(const DeclaredItem& item)
{
    auto& items = m_bundle.items;
    if (std::none_of(items.begin(), items.end(),
                     [&item](const ItemStatus& known) { return known.name == item.name; })) {
        items.emplace_back();
        items.back().name = item.name;
    }
}

void Assembly::Fill(ItemStatus& item) const
{
    item.isThread = m_bundle.mode == THREAD_MODE;
    if (item.history != nullptr) {
        item.relaunches = item.history->RelaunchesSince(m_snapshot.taken - std::chrono::hours(1));
        item.isCrashLooping = IsCrashLoop(*item.history, m_snapshot.taken);
    }
    if (!m_snapshot.installation.server) {
        item.up = ItemStatus::DOWN;
    }
    if (item.isThread) {
        FindThreadOf(item);
    } else {
        FindProcessesOf(item);
    }
}

void Assembly::FindProcessesOf(ItemStatus& item) const
{
    for (const BundleProcess& process : m_snapshot.processes) {
        if (process.bundle != m_bundle.name || process.item != item.name || process.role == ProcessRole::DESCENDANT ||
            process.role == ProcessRole::SCRIPT) {
            continue;
        }
        if (process.role == ProcessRole::ITEM && item.process == nullptr) {
            item.process = &process;
            item.pid = process.stat.pid;
        } else {
            item.further.push_back(process.stat.pid);
        }
    }
    item.up = item.process != nullptr ? ItemStatus::UP : ItemStatus::DOWN;
}

void Assembly::FindThreadOf(ItemStatus& item) const
{
    const std::string name = ThreadName(m_bundle.name, item.name);
    const pid_t number = item.history != nullptr ? item.history->pid : 0;
    for (const ProcessStat& thread : m_snapshot.threads) {
        // The number alone is not enough: it may already belong to another thread.
        if (thread.name == name && (number == 0 || thread.pid == number)) {
            item.thread = &thread;
            item.pid = thread.pid;
            item.up = ItemStatus::UP;
            return;
        }
    }
    if (item.history != nullptr && item.history->hasEnded && item.history->failure.empty() &&
        m_bundle.state == BundleState::ACTIVE && m_snapshot.installation.server) {
        item.up = ItemStatus::ACTIVATED;
    } else {
        item.up = ItemStatus::DOWN;
    }
}

void Assembly::Sum()
{
    for (const ItemStatus& item : m_bundle.items) {
        m_bundle.itemsUp += item.up == ItemStatus::UP || item.up == ItemStatus::ACTIVATED ? 1U : 0U;
        m_bundle.relaunches += item.relaunches;
        m_bundle.isCrashLooping = m_bundle.isCrashLooping || item.isCrashLooping;
        m_bundle.runsTwice = m_bundle.runsTwice || !item.further.empty();
        m_bundle.isProgramReplaced =
            m_bundle.isProgramReplaced || (item.process != nullptr && item.process->isReplaced);
    }
}

bool IsDeclaredTwin(const DeclaredBundle& declared)
{
    return declared.verdict == Verdict::DUPLICATE;
}

/// The directory of a bundle in the log. If the log has lost the bundle's path, the name is used.
const DeclaredBundle* DeclaredAt(const Snapshot& snapshot, const BundleHistory& bundle)
{
    if (!bundle.path.empty()) {
        return snapshot.collection.FindByPath(bundle.path);
    }
    const auto& all = snapshot.collection.bundles;
    const auto found = std::find_if(all.begin(), all.end(), [&bundle](const DeclaredBundle& declared) {
        return declared.name == bundle.name && !IsDeclaredTwin(declared);
    });
    return found == all.end() ? nullptr : &*found;
}

/// Appends the bundles of the server's log, without those that were deleted or removed.
void AppendLogged(const Snapshot& snapshot, std::vector<BundleStatus>& bundles)
{
    if (snapshot.server == nullptr) {
        return;
    }
    for (const auto& [name, history] : snapshot.server->bundles) {
        const DeclaredBundle* const declared = DeclaredAt(snapshot, history);
        if ((history.state == BundleState::GONE && declared == nullptr) || name.empty()) {
            continue;
        }
        BundleStatus bundle;
        bundle.name = name;
        bundle.path = declared != nullptr ? declared->path : history.path;
        bundle.declared = declared;
        bundle.history = &history;
        bundles.push_back(std::move(bundle));
    }
}

/// Appends the directories of the collection that are not in the list yet.
void AppendUnlogged(const Snapshot& snapshot, std::vector<BundleStatus>& bundles)
{
    for (const DeclaredBundle& declared : snapshot.collection.bundles) {
        if (std::any_of(bundles.begin(), bundles.end(),
                        [&declared](const BundleStatus& bundle) { return bundle.path == declared.path; })) {
            continue;
        }
        BundleStatus bundle;
        bundle.name = declared.name;
        bundle.path = declared.path;
        bundle.declared = &declared;
        if (snapshot.server != nullptr) {
            const auto refused = snapshot.server->refused.find(declared.loggedPath);
            bundle.refused = refused == snapshot.server->refused.end() ? nullptr : &refused->second;
            // If the log has only deaths of a bundle, it does not have the bundle's path.
            bundle.history =
                IsDeclaredTwin(declared) || bundle.refused != nullptr ? nullptr : snapshot.server->Find(declared.name);
        }
        bundles.push_back(std::move(bundle));
    }
}

} // namespace

bool BundleStatus::IsHealthy() const
{
    return state == BundleState::ACTIVE && itemsUp == items.size() && !isCrashLooping && !runsTwice && !isDirectoryGone;
}

std::vector<BundleStatus> StatusOf(const Snapshot& snapshot)
{
    std::vector<BundleStatus> bundles;
    AppendLogged(snapshot, bundles);
    AppendUnlogged(snapshot, bundles);
    for (BundleStatus& bundle : bundles) {
        Assembly(snapshot, bundle).Run();
    }
    std::sort(bundles.begin(), bundles.end(), [](const BundleStatus& one, const BundleStatus& other) {
        return std::tie(one.name, one.path) < std::tie(other.name, other.path);
    });
    return bundles;
}

} // namespace Model
