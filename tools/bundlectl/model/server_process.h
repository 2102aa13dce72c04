#ifndef BUNDLECTL_MODEL_SERVER_PROCESS_H
#define BUNDLECTL_MODEL_SERVER_PROCESS_H

#include "proc.h"

#include <optional>
#include <string>
#include <vector>

namespace Model {

/// A running bundle server.
struct ServerProcess {
    ProcessStat stat;
    std::string program; ///< its program file; empty: it may not be read
    std::vector<std::string> arguments;
    std::string configuration;            ///< from its command line, absolute if possible; empty: not given
    std::optional<std::string> directory; ///< its working directory; empty: it may not be read
    bool isReadable = false;              ///< its environment and its descriptors may be read
    std::string logFile;                  ///< ZQ_LOG_FILE in its environment, absolute; empty: not set
    std::string standardError;            ///< the target of descriptor 2, as in /proc
    std::string journalStream;            ///< JOURNAL_STREAM in its environment
    std::string unit;                     ///< the systemd unit that it runs in; empty: none
    bool isServing = false;               ///< it holds the socket of the request service
    std::optional<bool> isOfOurMounts;    ///< whether it sees the same file systems as we do; empty: unknown
};

/// The running bundle servers, without their children that are about to execute an item. Ordered by pid.
std::vector<ServerProcess> FindServers(const Proc& proc);

/// Whether the process sees the same file systems as we do. A service manager may run a process in its own namespace to
/// restrict it. Such a process still shares the directory of services with us; a process in a container does not.
/// Empty: this may not be read, or the process has ended.
std::optional<bool> IsOfOurMounts(const Proc& proc, pid_t pid);

/// The socket of the request service.
constexpr const char SERVICE_SOCKET[] = "/mnt/bolt/bundlesvr.paas.kov";

} // namespace Model

#endif
