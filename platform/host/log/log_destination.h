#ifndef PLATFORM_HOST_LOG_LOG_DESTINATION_H
#define PLATFORM_HOST_LOG_LOG_DESTINATION_H

#include <atomic>
#include <cstddef>

namespace HostPlatform {

/// Where records go, in the size of one atomic number. A plain value: its destruction does not close the descriptor.
class LogDestination {
public:
    enum Kind { PLAIN, PIPE, SOCKET, JOURNAL }; ///< JOURNAL: a socket at whose other end the system's journal reads

    /// An undecided one.
    constexpr LogDestination() = default;
    /// @param fd an open descriptor, which Close closes
    LogDestination(int fd, Kind kind) : m_packed((fd << KIND_BITS) | kind) {}

    /// Opens a file for appending and creates it, with mode 0640, if it is missing. A FIFO is opened for reading too,
    /// so that its reader may come later, and come and go. A link is followed only in a directory that belongs to this
    /// user or root and that others may not write to. Never waits.
    /// @return undecided, with errno set, when it cannot be opened
    static LogDestination Open(const char* path);

    /// Standard error. A pipe is opened again, so that only the log's descriptor does not block. The environment
    /// variable JOURNAL_STREAM names the journal's socket. Always decided.
    static LogDestination StandardError();

    /// False for a value that no destination was given to; the other operations then make no sense.
    bool IsDecided() const { return m_packed != UNDECIDED; }
    int Fd() const { return m_packed >> KIND_BITS; }
    Kind GetKind() const { return static_cast<Kind>(m_packed & ((1 << KIND_BITS) - 1)); }

    /// Closes the descriptor, unless it is standard error. No copy of the value may be used afterwards.
    void Close() const;

private:
    static constexpr int KIND_BITS = 2;
    static constexpr int UNDECIDED = -1;

    int m_packed = UNDECIDED;
};

/// The state of the destination, shared by all processes that write to it. Any thread and process; no lock.
struct LogHealth {
    std::atomic<unsigned> lost{0};             ///< records whose loss is not logged yet
    std::atomic<bool> lastLineIsOpen{false};   ///< a full disk has cut a record off
    std::atomic<bool> readerHasStopped{false}; ///< a wait for the reader has timed out
};

/// A new one in memory that this process shares with children of later forks. Never freed.
/// @return null when such memory is unavailable
LogHealth* NewSharedHealth();

/// Writes one record. Waits at most a second for room in a pipe or socket with a slow reader, and not again until there
/// was room. Takes no lock and no heap and raises no SIGPIPE, so it may be called between fork and exec. May change
/// errno.
/// @param destination must be decided
/// @return false when the record is not written whole; the next record then begins in a new line
bool WriteToLog(LogDestination destination, LogHealth& health, const char* record, std::size_t length);

} // namespace HostPlatform

#endif
