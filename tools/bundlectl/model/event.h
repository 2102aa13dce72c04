#ifndef BUNDLECTL_MODEL_EVENT_H
#define BUNDLECTL_MODEL_EVENT_H

#include <array>
#include <cstddef>
#include <string_view>

namespace Model {

/// What a record's text says. One enumerator for each text of the server's log from which something follows.
enum class EventKind : unsigned char {
    NONE, ///< a text from which nothing follows, or one that is unknown

    CONFIG_READ_BEGINS, ///< a server's first record: (configuration file)
    INIT_BEGINS,
    COLLECTION_NAMED, ///< (path)
    LOAD_ALL_BEGINS,
    LOAD_ALL_DONE,
    RESOLVE_ALL_BEGINS,
    RESOLVE_ALL_DONE,
    START_ALL_BEGINS,
    START_ALL_DONE,
    INIT_DONE,
    SERVING,
    SERVICE_FAILED,

    LOAD_BEGINS,       ///< (path), at start-up
    ADDED_LOAD_BEGINS, ///< (path), while the server runs
    MANIFEST_NAME,     ///< (bundle)
    MANIFEST_MODE,     ///< (mode)
    MANIFEST_REQUIRES, ///< (bundle)
    MANIFEST_ITEM,     ///< (item)
    MANIFEST_ENTRY,    ///< (function)
    MANIFEST_DONE,
    MANIFEST_BROKEN,
    LOADED,       ///< (bundle)
    ADDED_LOADED, ///< (bundle)
    DUPLICATE,    ///< (bundle)
    MODE_REFUSED,
    LOAD_FAILED,       ///< (path and ":" and reason)
    ADDED_LOAD_FAILED, ///< (path)

    RESOLVE_BEGINS, ///< (bundle)
    RESOLVE_DONE,
    RESOLVE_FAILED, ///< (bundle, reason)
    START_BEGINS,   ///< (bundle)
    START_DONE,
    START_FAILED,      ///< (bundle, reason)
    ACTIVATOR_STARTS,  ///< (bundle)
    ACTIVATOR_STARTED, ///< (bundle)
    STATE_CHANGES,     ///< (bundle, from, to)
    STOP_BEGINS,       ///< (bundle)
    STOP_DONE,
    ACTIVATOR_STOPS,   ///< (bundle)
    ACTIVATOR_STOPPED, ///< (bundle)
    STOPS_ITEM,        ///< (bundle, item, pid)
    UNLOAD_BEGINS,     ///< (bundle)
    UNLOAD_DONE,
    UNLOAD_FAILED,       ///< (bundle, reason)
    UNINSTALLING_FAILED, ///< (bundle)
    UPDATE_FAILED,       ///< (bundle)
    DIRECTORY_REMOVED,   ///< (path)
    REASON,              ///< (reason): of the failure whose record follows

    SCRIPT_BEGINS, ///< (path)
    SCRIPT_DONE,   ///< (path)

    ADDED,
    REMOVED,
    MODIFIED,
    FIND_BEGINS, ///< (bundle or path)
    FIND_FAILED, ///< (bundle or path)
    REQUEST,     ///< (uri, method)

    CHILD_WAITS,
    CHILD_IS_TOLD, ///< (pid): the server has launched it
    CHILD_IS_READY,
    CHILD_PIPE_FAILED,
    EXECUTES_LIBRARY, ///< (loader, "dyn_lib_process_loader", path, function)
    EXECUTES_SCRIPT,  ///< (path, path)
    EXECUTES_BINARY,  ///< (path, item)
    EXECUTE_FAILED,   ///< (errno)

    EXITED,         ///< (bundle.item, pid, status)
    KILLED,         ///< (bundle.item, pid, signal)
    STOP_EXPECTED,  ///< (bundle.item): the death before was a stop's
    RELAUNCHES,     ///< (bundle.item): after a signal
    NEEDS_RELAUNCH, ///< (bundle.item, pid, status, bundle.item)
    RELAUNCHED,     ///< (bundle.item)
    RESTS,          ///< (bundle.item, pid, status)
    MONITOR_STARTED,
    MONITOR_ENDED,
    MONITOR_DIED, ///< (errno)

    THREAD_STARTS,  ///< (bundle, item)
    THREAD_DONE,    ///< (bundle, item)
    LIBRARY_FAILED, ///< (path, "(null)")
    ENTRY_MISSING,  ///< (function, "(null)")
    ENTRY_FAILED,   ///< (function)
    THREAD_FAILED,  ///< (item, reason)

    COLLECTION_UNREADABLE, ///< (path, reason)
    COLLECTION_READABLE,   ///< (path)
    RECORDS_LOST,          ///< (count)

    COUNT
};

/// A text of the log: what the server writes, placeholders included, and what it says.
struct EventText {
    const char* text;
    EventKind kind;
};

/// All texts that the server and the host platform's log can write. Ends with a null text.
extern const EventText EVENT_TEXTS[];

/// A record's text, taken apart.
struct Event {
    EventKind kind = EventKind::NONE;
    std::array<std::string_view, 5> arguments; ///< for the placeholders, in their order; pieces of the message
    bool isKnown = false;                      ///< it is one of EVENT_TEXTS

    /// An argument as a number; 0 when it is none.
    int Number(std::size_t argument) const;
};

/// Takes a message apart, as it stands in the log.
Event EventOf(std::string_view message);

} // namespace Model

#endif
