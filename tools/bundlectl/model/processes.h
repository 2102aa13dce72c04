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

/// What a process has to do with the bundles.
enum class ProcessRole {
    ITEM,        ///< a child of the server that runs an item
    DESCENDANT,  ///< has come out of an item, and its line of parents still leads there
    SCRIPT,      ///< a script of a bundle, or the removal of its directory
    LAUNCHING,   ///< a child of the server that has not become its item yet
    OTHER_CHILD, ///< a child of the server of which nothing more can be told
    ESCAPED,     ///< has come out of this server, and no longer has a parent in it: the server does not supervise it
    LEFT_OVER,   ///< has come out of a server that has ended
};

/// A process that has to do with the bundles. Names are empty where they cannot be told.
struct BundleProcess {
    ProcessStat stat;
    ProcessRole role = ProcessRole::OTHER_CHILD;
    std::string bundle;
    std::string item;        ///< of a SCRIPT: its name, unless it has become another program
    pid_t itemPid = 0;       ///< of the ITEM that it has come out of; its own for an ITEM
    bool isReplaced = false; ///< its program file has been removed, or another has come to its place
};

/// What is asked of FindProcesses.
struct ProcessSources {
    explicit ProcessSources(const Proc& root) : proc(root) {}

    const Proc& proc;
    const ServerProcess* server = nullptr;              ///< null: none runs
    const std::vector<ServerProcess>* others = nullptr; ///< further servers, whose processes are none of ours
    const Collection* collection = nullptr;
    const ServerHistory* history = nullptr;
    const std::vector<RecordedLaunch>* recorded = nullptr;
    std::string base; ///< what the server's relative paths are relative to
};

/// The processes that are items of this server or of a former one, or have come out of either: told by parent, process
/// group, session, program file and start time, never by a number alone. In the order of their numbers.
std::vector<BundleProcess> FindProcesses(const ProcessSources& sources);

} // namespace Model

#endif
