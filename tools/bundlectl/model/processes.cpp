#include "processes.h"

#include "attribution.h"
#include "files.h"
#include "printable.h"
#include "recorder_file.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

namespace Model {

namespace {

constexpr std::string_view BELOW_BIN = "/./bin/";
constexpr std::string_view BELOW_SCRIPT = "/./script/";
constexpr std::string_view DELETED = " (deleted)";

bool IsDeleted(const std::string& program)
{
    return program.size() > DELETED.size() &&
           program.compare(program.size() - DELETED.size(), DELETED.size(), DELETED) == 0;
}

/// The bundle and item whose program a process runs.
struct Owner {
    std::string bundle;
    std::string item;
    bool isReplaced = false;
    bool isScript = false;
};

/// Finds the bundle and item of a process from its program.
class Programs {
public:
    explicit Programs(const ProcessSources& sources) : m_proc(sources.proc), m_base(sources.base)
    {
        if (sources.collection == nullptr) {
            return;
        }
        for (const DeclaredBundle& bundle : sources.collection->bundles) {
            if (bundle.verdict == Verdict::DUPLICATE) {
                continue; // its items never run
            }
            const std::string root = RealPath(bundle.path);
            m_names[root] = bundle.name;
            for (const DeclaredItem& item : bundle.items) {
                const Owner owner{bundle.name, item.name};
                m_files[root + "/bin/" + BaseName(item.file)] = owner;
                m_files[RealPath(item.file)] = owner; // the target of a link
            }
        }
    }

    std::optional<Owner> OwnerOf(pid_t pid) const
    {
        const auto words = m_proc.CommandLine(pid);
        if (words) {
            if (auto owner = OwnerByWords(*words)) {
                return owner;
            }
        }
        const auto program = m_proc.Link(pid, "exe");
        return program ? OwnerByFile(*program) : std::nullopt;
    }

    /// The bundle whose directory contains a process's program; empty: none.
    std::string BundleAround(pid_t pid) const
    {
        const std::string path = m_proc.Link(pid, "exe").value_or("");
        for (const auto& [root, name] : m_names) {
            if (path.size() > root.size() && path.compare(0, root.size(), root) == 0 && path[root.size()] == '/') {
                return name;
            }
        }
        return {};
    }

private:
    // A child of the server shows the path in the server's form: "sh PATH" and "LOADER -f PATH -e FUNCTION".
    std::optional<Owner> OwnerByWords(const std::vector<std::string>& words) const
    {
        constexpr std::size_t first = 3; // further words are arguments, such as a file that a user edits
        for (std::size_t i = 0; i < std::min(words.size(), first); ++i) {
            const std::string& word = words[i];
            for (const std::string_view below : {BELOW_BIN, BELOW_SCRIPT}) {
                const std::string_view root = BundleDirectoryIn(word, below);
                if (root.empty()) {
                    continue;
                }
                const auto name = m_names.find(RealPath(AbsolutePath(m_base, std::string(root))));
                Owner owner;
                owner.bundle = name == m_names.end() ? std::string() : name->second;
                owner.item = Printable(std::string_view(word).substr(root.size() + below.size()));
                owner.isScript = below == BELOW_SCRIPT;
                return owner;
            }
        }
        return std::nullopt;
    }

    std::optional<Owner> OwnerByFile(std::string program) const
    {
        const bool isDeleted = IsDeleted(program);
        if (isDeleted) {
            program.resize(program.size() - DELETED.size());
        }
        const auto found = m_files.find(program);
        if (found == m_files.end()) {
            return std::nullopt;
        }
        Owner owner = found->second;
        owner.isReplaced = isDeleted;
        return owner;
    }

    const Proc& m_proc;
    const std::string m_base;
    std::map<std::string, Owner> m_files;       // by path, without links
    std::map<std::string, std::string> m_names; // bundles by directory, without links
};

/// Goes through all processes once.
class Search {
public:
    explicit Search(const ProcessSources& sources) : m_sources(sources), m_programs(sources) {}

    std::vector<BundleProcess> Run();

private:
    bool IsOthers(const ProcessStat& process) const;
    void Follow(pid_t parent, const BundleProcess& ancestor);
    BundleProcess ChildOfServer(const ProcessStat& process) const;
    void FindWithoutParent(const ProcessStat& process);
    std::optional<Owner> OwnerByLaunch(const ProcessStat& process) const;
    std::optional<Owner> OwnerByFormerLaunch(const ProcessStat& process) const;
    std::optional<Owner> OwnerByLaunchOf(const ServerHistory& server, const ProcessStat& process) const;
    bool IsHandedOn(const ProcessStat& process) const;
    bool IsOfServer(const ProcessStat& process) const;
    bool IsOfService(const ProcessStat& process) const;
    const ProcessStat* Find(pid_t pid) const;

    const ProcessSources& m_sources;
    const Programs m_programs;
    std::vector<ProcessStat> m_all;
    std::multimap<pid_t, const ProcessStat*> m_children; // by parent
    std::map<pid_t, BundleProcess> m_found;
};

std::vector<BundleProcess> Search::Run()
{
    m_all = m_sources.proc.Processes();
    for (const ProcessStat& process : m_all) {
        if (process.IsAlive()) {
            m_children.emplace(process.parent, &process);
        }
    }
    if (m_sources.server != nullptr) {
        const auto [begin, end] = m_children.equal_range(m_sources.server->stat.pid);
        for (auto child = begin; child != end; ++child) {
            const BundleProcess process = ChildOfServer(*child->second);
            m_found.emplace(process.stat.pid, process);
            Follow(process.stat.pid, process);
        }
    }
    for (const ProcessStat& process : m_all) {
        if (process.IsAlive() && m_found.count(process.pid) == 0 && !IsOthers(process)) {
            FindWithoutParent(process);
        }
    }
    std::vector<BundleProcess> found;
    for (auto& [pid, process] : m_found) {
        found.push_back(std::move(process));
    }
    return found;
}

void Search::Follow(pid_t parent, const BundleProcess& ancestor)
{
    const auto [begin, end] = m_children.equal_range(parent);
    for (auto child = begin; child != end; ++child) {
        BundleProcess process = ancestor;
        process.stat = *child->second;
        process.role = ancestor.role == ProcessRole::ITEM ? ProcessRole::DESCENDANT : ancestor.role;
        process.isReplaced = false;
        if (m_found.emplace(process.stat.pid, process).second) {
            Follow(process.stat.pid, process);
        }
    }
}

BundleProcess Search::ChildOfServer(const ProcessStat& process) const
{
    BundleProcess found;
    found.stat = process;
    auto owner = m_programs.OwnerOf(process.pid);
    if (!owner) {
        owner = OwnerByLaunch(process); // it has executed another program, or its program may not be read
        if (owner) {
            owner->isReplaced = IsDeleted(m_sources.proc.Link(process.pid, "exe").value_or(""));
        }
    }
    if (owner) {
        found.role = owner->isScript ? ProcessRole::SCRIPT : ProcessRole::ITEM;
        found.bundle = owner->bundle;
        found.item = owner->item;
        found.itemPid = owner->isScript ? 0 : process.pid;
        found.isReplaced = owner->isReplaced;
    }
    if (m_sources.proc.CommandLine(process.pid) == m_sources.server->arguments) {
        found.role = ProcessRole::LAUNCHING;
    } else if (!owner && process.group == process.pid) {
        found.role = ProcessRole::SCRIPT; // items are in the server's group
    }
    return found;
}

// Compares pid and start time: the log has the time of a launch, which is just after the process's start.
std::optional<Owner> Search::OwnerByLaunchOf(const ServerHistory& server, const ProcessStat& process) const
{
    const Time started = m_sources.proc.StartTime(process);
    for (const auto& [name, bundle] : server.bundles) {
        for (const ItemHistory& item : bundle.items) {
            constexpr std::chrono::seconds tolerance(5);
            if (item.pid == process.pid && item.since && *item.since - started < tolerance &&
                started - *item.since < tolerance) {
                return Owner{name, item.name};
            }
        }
    }
    return std::nullopt;
}

std::optional<Owner> Search::OwnerByLaunch(const ProcessStat& process) const
{
    for (const RecordedLaunch& launch :
         m_sources.recorded != nullptr ? *m_sources.recorded : std::vector<RecordedLaunch>()) {
        if (launch.pid == process.pid && launch.startTicks == process.startTicks && launch.boot == BootId()) {
            return Owner{launch.bundle, launch.item};
        }
    }
    return m_sources.history != nullptr ? OwnerByLaunchOf(*m_sources.history, process) : std::nullopt;
}

std::optional<Owner> Search::OwnerByFormerLaunch(const ProcessStat& process) const
{
    auto owner = OwnerByLaunch(process);
    if (!owner && m_sources.all != nullptr) {
        for (const auto& server : m_sources.all->Servers()) {
            owner = owner ? owner : OwnerByLaunchOf(*server, process);
        }
    }
    return owner;
}

// When a parent ends, the kernel gives its child to process 1 or to the next subreaper. A process that was started by
// hand still has its parent, and a group with a leader.
bool Search::IsHandedOn(const ProcessStat& process) const
{
    const ProcessStat* const leader = Find(process.group);
    const bool hasLeader = leader != nullptr && leader->IsAlive();
    return process.pid != 1 && (process.parent <= 1 || !hasLeader || IsOfServer(process));
}

void Search::FindWithoutParent(const ProcessStat& process)
{
    if (!IsHandedOn(process)) {
        return;
    }
    BundleProcess found;
    found.stat = process;
    const auto owner = m_programs.OwnerOf(process.pid);
    if (owner) {
        found.bundle = owner->bundle;
        found.item = owner->item;
        found.isReplaced = owner->isReplaced;
    } else if (const auto launched = OwnerByFormerLaunch(process)) {
        found.bundle = launched->bundle;
        found.item = launched->item;
    } else {
        found.bundle = m_programs.BundleAround(process.pid);
        if (found.bundle.empty() && !IsOfServer(process) && !IsOfService(process)) {
            return;
        }
    }
    if (!IsOfOurMounts(m_sources.proc, process.pid).value_or(true)) {
        return; // a container's server has left it, and bundlectl inside the container reports it
    }
    const bool isOurs = m_sources.server != nullptr && process.startTicks >= m_sources.server->stat.startTicks;
    found.role = isOurs ? ProcessRole::ESCAPED : ProcessRole::LEFT_OVER;
    const auto [place, isNew] = m_found.emplace(process.pid, found);
    if (isNew) {
        Follow(process.pid, place->second);
    }
}

// The init script's processes and their descendants have a variable in their environment.
bool Search::IsOfService(const ProcessStat& process) const
{
    const auto environment = m_sources.proc.Environment(process.pid);
    return environment && environment->count("BUNDLE_SERVER_SERVICE") != 0;
}

// The server's group or session, which a child keeps when its parent ends.
bool Search::IsOfServer(const ProcessStat& process) const
{
    if (m_sources.server == nullptr || process.pid == m_sources.server->stat.pid) {
        return false;
    }
    const ProcessStat& server = m_sources.server->stat;
    const bool isLeader = server.group == server.pid; // otherwise it shares its group with the program that started it
    return (isLeader && process.group == server.pid) || (server.session == server.pid && process.session == server.pid);
}

// Whether it belongs to another running server, or is one.
bool Search::IsOthers(const ProcessStat& process) const
{
    if (m_sources.server != nullptr && process.pid == m_sources.server->stat.pid) {
        return true;
    }
    for (const ServerProcess& other : m_sources.others != nullptr ? *m_sources.others : std::vector<ServerProcess>()) {
        const ProcessStat* ancestor = &process;
        for (int depth = 0; ancestor != nullptr && depth < 64; ++depth) {
            if (ancestor->pid == other.stat.pid) {
                return true;
            }
            ancestor = ancestor->parent > 1 ? Find(ancestor->parent) : nullptr;
        }
    }
    return false;
}

const ProcessStat* Search::Find(pid_t pid) const
{
    const auto found = std::lower_bound(m_all.begin(), m_all.end(), pid,
                                        [](const ProcessStat& process, pid_t number) { return process.pid < number; });
    return found != m_all.end() && found->pid == pid ? &*found : nullptr;
}

} // namespace

std::vector<BundleProcess> FindProcesses(const ProcessSources& sources)
{
    return Search(sources).Run();
}

} // namespace Model
