#include "attribution.h"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <utility>

namespace Model {

namespace {

using KnownBundles = std::map<std::string, ServerContext::KnownBundle>;

bool Executes(EventKind kind)
{
    return kind == EventKind::EXECUTES_LIBRARY || kind == EventKind::EXECUTES_SCRIPT ||
           kind == EventKind::EXECUTES_BINARY;
}

bool IsChildsRecord(EventKind kind)
{
    return kind == EventKind::CHILD_WAITS || kind == EventKind::CHILD_IS_READY ||
           kind == EventKind::CHILD_PIPE_FAILED || kind == EventKind::EXECUTE_FAILED || Executes(kind);
}

using Handlers = std::array<AttributionHandler, static_cast<std::size_t>(EventKind::COUNT)>;

Handlers MakeHandlers()
{
    Handlers handlers{};
    for (const Meaning* meanings : {BUNDLE_MEANINGS, ITEM_MEANINGS}) {
        for (; meanings->handler != nullptr; ++meanings) {
            handlers[static_cast<std::size_t>(meanings->kind)] = meanings->handler;
        }
    }
    return handlers;
}

AttributionHandler HandlerOf(EventKind kind)
{
    static const Handlers handlers = MakeHandlers();
    return handlers[static_cast<std::size_t>(kind)];
}

bool HasItem(const ServerContext::KnownBundle& bundle, std::string_view item)
{
    return std::find(bundle.items.begin(), bundle.items.end(), item) != bundle.items.end();
}

/// Splits "bundle.item". Both names may contain points, so it searches for a bundle that has such an item.
bool Split(const KnownBundles& bundles, std::string_view processName, ChildContext& child)
{
    for (const auto& [name, bundle] : bundles) {
        if (processName.size() > name.size() && processName[name.size()] == '.' &&
            processName.substr(0, name.size()) == name && HasItem(bundle, processName.substr(name.size() + 1))) {
            child = {name, std::string(processName.substr(name.size() + 1))};
            return true;
        }
    }
    return false;
}

std::string NameAt(const KnownBundles& bundles, const std::string& path)
{
    for (const auto& [name, bundle] : bundles) {
        if (bundle.path == path) {
            return name;
        }
    }
    return {};
}

/// The path of the item in a record of a child that is about to execute it.
std::string_view ExecutedPath(const Event& event)
{
    return event.arguments[event.kind == EventKind::EXECUTES_LIBRARY ? 2 : 0];
}

} // namespace

std::string_view BundleDirectoryIn(std::string_view path, std::string_view below)
{
    const std::size_t place = path.rfind(below);
    return place == std::string_view::npos ? std::string_view() : path.substr(0, place);
}

Attribution::Attribution(Sink sink) : m_sink(std::move(sink)) {}

void Attribution::Know(const std::string& bundle, const std::string& path, const std::vector<std::string>& items)
{
    m_known[bundle] = {path, items};
}

const std::string& Attribution::Take(const LogRecord& record)
{
    const Event event = EventOf(record.message);
    if (!event.isKnown && m_servers.count(record.pid) == 0) {
        return TakeFromItem(record);
    }
    return IsChildsRecord(event.kind) ? TakeFromChild(record, event) : TakeFromServer(record, event);
}

// An item may use the same log.
const std::string& Attribution::TakeFromItem(const LogRecord& record)
{
    ServerContext* const server = ParentOf(record.pid);
    m_bundle = server != nullptr ? server->children[record.pid].bundle : std::string();
    return m_bundle;
}

const std::string& Attribution::TakeFromChild(const LogRecord& record, const Event& event)
{
    m_bundle.clear();
    ServerContext* const server = ParentOf(record.pid);
    if (server == nullptr) {
        return m_bundle; // launched before the log begins, or its launch is not logged yet
    }
    ThreadContext thread;
    const AttributionStep step{record, event, *server, thread, m_known, m_sink, {}};
    const ChildContext& child = server->children[record.pid];
    m_bundle = child.bundle;
    if (event.kind == EventKind::EXECUTE_FAILED) {
        step.TellItem(Fact::EXECUTE_FAILED, child, record.pid, event.Number(0));
    } else if (Executes(event.kind)) {
        Fact fact = step.NewFact(Fact::ITEM_EXECUTES);
        fact.bundle = child.bundle;
        fact.item = child.item;
        fact.pid = record.pid;
        fact.path = ExecutedPath(event);
        step.Tell(fact);
    }
    return m_bundle;
}

const std::string& Attribution::TakeFromServer(const LogRecord& record, const Event& event)
{
    ServerContext& server = ServerOf(record, event.kind);
    AttributionStep step{record, event, server, server.threads[record.thread], m_known, m_sink, {}};
    // A two-language record repeats the record before it.
    constexpr int languageModule = 5;
    if (record.module == languageModule) {
        step.bundle = step.thread.deadChild.bundle;
    } else if (const AttributionHandler handler = HandlerOf(event.kind)) {
        handler(step);
    }
    if (step.bundle.empty() && !step.thread.bundles.empty()) {
        step.bundle = step.thread.bundles.back();
    }
    m_bundle = std::move(step.bundle);
    return m_bundle;
}

ServerContext& Attribution::ServerOf(const LogRecord& record, EventKind kind)
{
    if (kind == EventKind::CONFIG_READ_BEGINS) {
        m_servers.erase(record.pid); // the pid now belongs to another server
    }
    if (m_servers.count(record.pid) == 0) {
        ForgetOldest();
    }
    ServerContext& server = m_servers[record.pid];
    server.pid = record.pid;
    server.lastRecord = record.time;
    // No server has so many children at a time: removes what is known of ended ones.
    constexpr std::size_t most = 10'000;
    if (server.threads.size() > most || server.children.size() > most) {
        server.threads.clear();
        server.children.clear();
    }
    return server;
}

ServerContext* Attribution::ParentOf(pid_t child)
{
    for (auto& [pid, server] : m_servers) {
        if (server.children.count(child) != 0) {
            return &server;
        }
    }
    return nullptr;
}

// If a server is started again and again, its log contains any number of servers.
void Attribution::ForgetOldest()
{
    constexpr std::size_t most = 8;
    while (m_servers.size() >= most) {
        m_servers.erase(std::min_element(m_servers.begin(), m_servers.end(), [](const auto& one, const auto& other) {
            return one.second.lastRecord < other.second.lastRecord;
        }));
    }
}

Fact AttributionStep::NewFact(Fact::Kind kind) const
{
    Fact fact;
    fact.kind = kind;
    fact.time = record.time;
    fact.server = server.pid;
    fact.thread = record.thread;
    fact.line = record.line;
    return fact;
}

void AttributionStep::Tell(const Fact& fact) const
{
    if (sink) {
        sink(fact);
    }
}

void AttributionStep::Tell(Fact::Kind kind, const std::string& name, const std::string& text) const
{
    Fact fact = NewFact(kind);
    fact.bundle = name;
    fact.text = text;
    Tell(fact);
}

void AttributionStep::TellItem(Fact::Kind kind, const ChildContext& child, pid_t pid, int number) const
{
    Fact fact = NewFact(kind);
    fact.bundle = child.bundle;
    fact.item = child.item;
    fact.pid = pid;
    fact.number = number;
    Tell(fact);
}

ChildContext AttributionStep::ChildOf(pid_t pid, std::string_view processName) const
{
    const auto launched = server.children.find(pid);
    if (launched != server.children.end()) {
        return launched->second;
    }
    ChildContext child;
    if (!Split(server.bundles, processName, child) && !Split(known, processName, child)) {
        child.item = processName;
    }
    return child;
}

std::string AttributionStep::BundleAt(const std::string& path) const
{
    const std::string name = NameAt(server.bundles, path);
    return name.empty() ? NameAt(known, path) : name;
}

} // namespace Model
