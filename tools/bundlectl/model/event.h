#ifndef BUNDLECTL_MODEL_EVENT_H
#define BUNDLECTL_MODEL_EVENT_H

#include <array>
#include <cstddef>
#include <string_view>

namespace Model {

/// The meaning of a record's text. Each text of the server's log that has consequences has one enumerator.
enum class EventKind : unsigned char {
    NONE, ///< a text without consequences, or an unknown text

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
    STOP_EXPECTED,  ///< (bundle.item): a stop has caused the death before
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

/// A text of the log, with its placeholders, and its meaning.
struct EventText {
    const char* text;
    EventKind kind;
};

/// All texts that the server and the host platform's log write. Ends with a null text.
extern const EventText EVENT_TEXTS[];

/// A parsed record text.
struct Event {
    EventKind kind = EventKind::NONE;
    std::array<std::string_view, 5> arguments; ///< for the placeholders, in their order; pieces of the message
    bool isKnown = false;                      ///< it is one of EVENT_TEXTS

    /// An argument as a number; 0 when it is not a number.
    int Number(std::size_t argument) const;
};

/// Parses a message of the log.
Event EventOf(std::string_view message);

} // namespace Model

#endif
