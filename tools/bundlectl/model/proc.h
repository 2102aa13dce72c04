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
    std::uint64_t startTicks = 0; ///< since the machine's start; together with pid it identifies a process

    bool IsAlive() const { return state != 'Z' && state != 'X' && state != '?'; }
};

/// Reads /proc. Every call reads it again, so two calls may see different processes. Tests use another directory as
/// root.
class Proc {
public:
    explicit Proc(std::string root = "/proc") : m_root(std::move(root)) {}

    /// All processes, zombies too, in the order of their numbers.
    std::vector<ProcessStat> Processes() const;
    /// Empty when the process does not exist.
    std::optional<ProcessStat> Stat(pid_t pid) const;
    /// The names and times of a process's threads.
    std::vector<ProcessStat> Threads(pid_t pid) const;

    // Each of these returns an empty value when it may not be read.

    /// The words of the command line.
    std::optional<std::vector<std::string>> CommandLine(pid_t pid) const;
    std::optional<std::map<std::string, std::string>> Environment(pid_t pid) const;
    /// The target of "exe", "cwd", "fd/2" or "ns/mnt". A removed file's path ends with " (deleted)".
    std::optional<std::string> Link(pid_t pid, const std::string& name) const;
    std::optional<uid_t> User(pid_t pid) const;
    /// The process's proportional share of memory in KiB, which its end would free.
    std::optional<std::uint64_t> ProportionalKilobytes(pid_t pid) const;
    /// The numbers and targets of its open descriptors.
    std::optional<std::map<int, std::string>> Descriptors(pid_t pid) const;
    std::optional<std::string> Read(pid_t pid, const std::string& name) const;

    /// The start time of the process, by the present clock.
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
