#ifndef BUNDLECTL_MODEL_ATTRIBUTION_H
#define BUNDLECTL_MODEL_ATTRIBUTION_H

#include "event.h"
#include "fact.h"

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Model {

/// A child of the server.
struct ChildContext {
    std::string bundle;
    std::string item;
};

/// What a thread of the server is doing, according to its records.
struct ThreadContext {
    std::vector<std::string> bundles; ///< begun and not finished, the innermost last
    std::string path;                 ///< the bundle directory that it loads or has searched for
    bool isLoading = false;
    LoggedManifest manifest;         ///< the last that it has read
    std::string added;               ///< the bundle that came while the server ran, and has not been started yet
    std::vector<std::string> failed; ///< to be unloaded at the end of the walk over all bundles
    std::string script;              ///< whose end has not been logged
    std::string reason;              ///< the reason of the failure whose record follows
    std::string item;                ///< in thread mode: the item whose thread it is
    std::size_t nextItem = 0;        ///< of the manifest, to be launched
    pid_t dead = 0;                  ///< the child whose end it handles; the pid may already belong to another child
    ChildContext deadChild;
    bool isRelaunching = false;
};

/// A server, according to its records.
struct ServerContext {
    struct KnownBundle {
        std::string path;
        std::vector<std::string> items;
    };

    pid_t pid = 0;
    Time lastRecord;
    std::map<pid_t, ThreadContext> threads;
    std::map<pid_t, ChildContext> children;
    std::map<std::string, KnownBundle> bundles; ///< by name
};

/// Finds the bundle and item to which each record belongs, and reports the facts that follow from it. Accepts records
/// of several servers and their children, in any mixture.
class Attribution {
public:
    using Sink = std::function<void(const Fact&)>;

    /// @param sink called with each fact, in the order of the records. May be empty.
    explicit Attribution(Sink sink);

    /// Adds a present bundle. It is used only if the log does not show an item's bundle because the beginning of the
    /// log is missing.
    void Know(const std::string& bundle, const std::string& path, const std::vector<std::string>& items);

    /// Takes the next record. Returns the name of the bundle that it belongs to, empty for none; valid until the next
    /// call.
    const std::string& Take(const LogRecord& record);

private:
    const std::string& TakeFromItem(const LogRecord& record);
    const std::string& TakeFromChild(const LogRecord& record, const Event& event);
    const std::string& TakeFromServer(const LogRecord& record, const Event& event);
    ServerContext& ServerOf(const LogRecord& record, EventKind kind);
    ServerContext* ParentOf(pid_t child);
    void ForgetOldest();

    const Sink m_sink;
    std::map<pid_t, ServerContext> m_servers;
    std::map<std::string, ServerContext::KnownBundle> m_known;
    std::string m_bundle; // of the record
};

/// One record while the steps below interpret it.
struct AttributionStep {
    const LogRecord& record;
    const Event& event;
    ServerContext& server;
    ThreadContext& thread;
    const std::map<std::string, ServerContext::KnownBundle>& known;
    const Attribution::Sink& sink;
    std::string bundle; ///< that the record belongs to

    std::string Argument(std::size_t number) const { return std::string(event.arguments[number]); }
    Fact NewFact(Fact::Kind kind) const;
    void Tell(const Fact& fact) const;
    /// Reports a fact about a bundle.
    void Tell(Fact::Kind kind, const std::string& name, const std::string& text = {}) const;
    void TellItem(Fact::Kind kind, const ChildContext& child, pid_t pid, int number = 0) const;
    /// The child with this pid. If its launch is not in the log, uses the name in its record, "bundle.item".
    ChildContext ChildOf(pid_t pid, std::string_view processName) const;
    /// The name of the bundle in a directory; empty: unknown.
    std::string BundleAt(const std::string& path) const;
};

using AttributionHandler = void (*)(AttributionStep&);

/// The handler of a text.
struct Meaning {
    EventKind kind;
    AttributionHandler handler;
};

/// The texts about the server and its bundles, and those about items. Each ends with a null handler.
extern const Meaning BUNDLE_MEANINGS[];
extern const Meaning ITEM_MEANINGS[];

/// The bundle's directory in the path of one of its items or scripts; empty for any other path.
std::string_view BundleDirectoryIn(std::string_view path, std::string_view below);

} // namespace Model

#endif
