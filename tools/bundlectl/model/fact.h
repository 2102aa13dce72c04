#ifndef BUNDLECTL_MODEL_FACT_H
#define BUNDLECTL_MODEL_FACT_H

#include "log_record.h"

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

namespace Model {

/// A manifest as the server has logged it when reading it. Names are as in the log: with escapes.
struct LoggedManifest {
    std::string name;
    int mode = 0;
    std::vector<std::string> required;
    std::vector<std::string> items;
};

/// An event, with its bundle and item. Values that the log does not show are empty or 0. Names are as in the log, with
/// escapes: compare them with Printable(name).
struct Fact {
    enum Kind {
        NONE,

        SERVER_STARTED,   ///< text: its configuration file, as on its command line
        COLLECTION_NAMED, ///< path
        PHASE_BEGAN,      ///< number: a Phase
        PHASE_ENDED,      ///< number: a Phase
        SERVER_READY,     ///< start-up is over
        SERVING,          ///< its socket answers
        SERVICE_FAILED,   ///< the server continues without the service
        REQUEST,          ///< number: the method

        LOADING,          ///< path
        LOADED,           ///< bundle, path, manifest
        LOAD_REFUSED,     ///< path; bundle, once that was known; number: a Refusal; text: the reason
        MANIFEST_UPDATED, ///< bundle as it was called, path, manifest
        RESOLVE_BEGAN,    ///< bundle
        RESOLVE_ENDED,    ///< bundle
        START_BEGAN,      ///< bundle
        START_ENDED,      ///< bundle
        STATE_CHANGED,    ///< bundle, text: the new state, path: the old one
        RESOLVE_FAILED,   ///< bundle, text: the reason
        START_FAILED,     ///< bundle, text: the reason
        HOT_START_FAILED, ///< bundle: came while the server ran; the log has no reason
        STOP_FAILED,      ///< bundle, text: the reason; it was to be deleted, or its directory has gone
        UPDATE_FAILED,    ///< bundle, text: the reason
        UNLOADED,         ///< bundle
        UNLOAD_FAILED,    ///< bundle, text: the reason
        REMOVED,          ///< path: its directory was removed on request
        SCRIPT_BEGAN,     ///< bundle, path: the bundle's directory, text: the script's name
        SCRIPT_ENDED,     ///< the same

        ITEM_LAUNCHED,   ///< bundle, item, pid; number: 1 for a relaunch
        ITEM_EXECUTES,   ///< bundle, item, pid; path: what is executed
        EXECUTE_FAILED,  ///< bundle, item, pid; number: errno
        ITEM_EXITED,     ///< bundle, item, pid; number: the status
        ITEM_KILLED,     ///< bundle, item, pid; number: the signal
        ITEM_RESTS,      ///< bundle, item, pid: its status asks for no relaunch
        ITEM_STOPPED,    ///< bundle, item, pid: the server has killed it
        ITEM_RELAUNCHES, ///< bundle, item, pid of the dead one
        THREAD_STARTED,  ///< bundle, item; thread is the item's
        THREAD_ENDED,    ///< bundle, item
        THREAD_FAILED,   ///< bundle, item, text: the server's record
        MONITOR_STARTED,
        MONITOR_ENDED, ///< no child is left
        MONITOR_DIED,  ///< number: errno

        COLLECTION_UNREADABLE, ///< path, text: the reason
        COLLECTION_READABLE,   ///< path
        RECORDS_LOST,          ///< number
    };

    enum Phase { PHASE_LOAD, PHASE_RESOLVE, PHASE_START };
    enum Refusal { REFUSED_MANIFEST, REFUSED_DUPLICATE, REFUSED_MODE, REFUSED_OTHERWISE };

    Kind kind = NONE;
    Time time;
    pid_t server = 0;
    pid_t thread = 0; ///< the server's thread that wrote the record
    std::string bundle;
    std::string item;
    std::string path;
    std::string text;
    pid_t pid = 0;
    int number = 0;
    const LoggedManifest* manifest = nullptr; ///< valid during the call that reports the fact
    std::string_view line;                    ///< the record of the fact; valid as long
};

} // namespace Model

#endif
