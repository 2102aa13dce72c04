#ifndef BUNDLECTL_MODEL_PROCESSES_H
#define BUNDLECTL_MODEL_PROCESSES_H

#include "collection.h"
#include "history.h"
#include "proc.h"
#include "server_process.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Model {

struct RecordedLaunch;

/// The relation of a process to the bundles.
enum class ProcessRole {
    ITEM,        ///< a child of the server that runs an item
    DESCENDANT,  ///< was started by an item and is still its descendant
    SCRIPT,      ///< a script of a bundle, or the removal of its directory
    LAUNCHING,   ///< a child of the server that has not become its item yet
    OTHER_CHILD, ///< any other child of the server
    ESCAPED,     ///< was started under this server, but is no longer its descendant: the server does not supervise it
    LEFT_OVER,   ///< was started under a server that has ended
};

/// A process that belongs to the bundles. Unknown names are empty.
struct BundleProcess {
    ProcessStat stat;
    ProcessRole role = ProcessRole::OTHER_CHILD;
    std::string bundle;
    std::string item;        ///< for a SCRIPT: its name, unless it has executed another program
    pid_t itemPid = 0;       ///< the ITEM that has started it; for an ITEM its own pid
    bool isReplaced = false; ///< its program file has been removed or replaced
};

/// The input of FindProcesses.
struct ProcessSources {
    explicit ProcessSources(const Proc& root) : proc(root) {}

    const Proc& proc;
    const ServerProcess* server = nullptr;              ///< null: none runs
    const std::vector<ServerProcess>* others = nullptr; ///< other servers, whose processes are ignored
    const Collection* collection = nullptr;
    const ServerHistory* history = nullptr; ///< of the server
    const History* all = nullptr;           ///< also of former servers
    const std::vector<RecordedLaunch>* recorded = nullptr;
    std::string base; ///< the directory for the server's relative paths
};

/// The processes that are items of this server or a former one, or were started by such items. Identified by parent,
/// process group, session, program file and start time, never by pid alone. Ordered by pid.
std::vector<BundleProcess> FindProcesses(const ProcessSources& sources);

} // namespace Model

#endif
