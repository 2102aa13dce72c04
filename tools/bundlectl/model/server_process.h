#ifndef BUNDLECTL_MODEL_SERVER_PROCESS_H
#define BUNDLECTL_MODEL_SERVER_PROCESS_H

#include "proc.h"

#include <optional>
#include <string>
#include <vector>

namespace Model {

/// A bundle server that runs.
struct ServerProcess {
    ProcessStat stat;
    std::string program; ///< its file; empty when that may not be read
    std::vector<std::string> arguments;
    std::string configuration; ///< of its command line, absolute where that can be told; empty: none is given
    std::optional<std::string> directory; ///< its working directory; empty: it may not be read
    bool isReadable = false;              ///< its environment and its descriptors may be read
    std::string logFile;                  ///< ZQ_LOG_FILE in its environment, absolute; empty: it has none
    std::string standardError;            ///< where descriptor 2 leads, as in /proc
    std::string journalStream;            ///< JOURNAL_STREAM in its environment
    std::string unit;                     ///< the systemd unit that it runs in; empty: none
    bool isServing = false;               ///< it holds the socket of the request service
    std::optional<bool> isOfOurMounts;    ///< whether it sees the file systems that we see; empty: that may not be read
};

/// The bundle servers that run, without their children that are about to execute an item. In the order of their
/// numbers.
std::vector<ServerProcess> FindServers(const Proc& proc);

/// Whether the process sees the file systems that we see. One that a service manager has given a namespace of its own,
/// to take something from it, still shares the directory of services with us; one in a container does not. Empty: that
/// may not be read, or the process has ended.
std::optional<bool> IsOfOurMounts(const Proc& proc, pid_t pid);

/// The socket of the request service.
constexpr const char SERVICE_SOCKET[] = "/mnt/bolt/bundlesvr.paas.kov";

} // namespace Model

#endif
