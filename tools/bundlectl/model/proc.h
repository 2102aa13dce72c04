#ifndef BUNDLECTL_MODEL_PROC_H
#define BUNDLECTL_MODEL_PROC_H

#include "log_time.h"

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Model {

/// A process by its /proc/PID/stat, which every user may read.
struct ProcessStat {
    pid_t pid = 0;
    std::string name; ///< of its main thread, at most 15 bytes; not escaped
    char state = '?';
    pid_t parent = 0;
    pid_t group = 0;
    pid_t session = 0;
    std::uint64_t cpuTicks = 0;
    int threads = 0;
    std::uint64_t startTicks = 0; ///< since the machine's start: with pid it names one process and no other

    bool IsAlive() const { return state != 'Z' && state != 'X' && state != '?'; }
};

/// Reads /proc. Every call reads anew, so two calls may see different processes. Tests give another directory as root.
class Proc {
public:
    explicit Proc(std::string root = "/proc") : m_root(std::move(root)) {}

    /// All processes, zombies too, in the order of their numbers.
    std::vector<ProcessStat> Processes() const;
    /// Empty when there is no such process.
    std::optional<ProcessStat> Stat(pid_t pid) const;
    /// Of a process: its threads' names and times.
    std::vector<ProcessStat> Threads(pid_t pid) const;

    // Each of these is empty when it may not be read.

    /// The words of the command line.
    std::optional<std::vector<std::string>> CommandLine(pid_t pid) const;
    std::optional<std::map<std::string, std::string>> Environment(pid_t pid) const;
    /// Where "exe", "cwd", "fd/2", "ns/mnt" lead. A file that was removed has " (deleted)" behind its path.
    std::optional<std::string> Link(pid_t pid, const std::string& name) const;
    std::optional<uid_t> User(pid_t pid) const;
    /// The memory that the process would free by its end: its proportional share, in KiB.
    std::optional<std::uint64_t> ProportionalKilobytes(pid_t pid) const;
    /// The numbers of its open descriptors and where they lead.
    std::optional<std::map<int, std::string>> Descriptors(pid_t pid) const;
    std::optional<std::string> Read(pid_t pid, const std::string& name) const;

    /// When the process was started, by the present clock.
    Time StartTime(const ProcessStat& process) const;
    Microseconds Uptime(const ProcessStat& process) const;
    static Microseconds CpuTime(const ProcessStat& process);

    std::string Path(pid_t pid, const std::string& name) const;
    const std::string& Root() const { return m_root; }

private:
    const std::string m_root;
};

} // namespace Model

#endif
