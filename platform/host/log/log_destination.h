#ifndef PLATFORM_HOST_LOG_LOG_DESTINATION_H
#define PLATFORM_HOST_LOG_LOG_DESTINATION_H

#include <atomic>
#include <cstddef>

namespace HostPlatform {

/// Where records go, in the size of one atomic number. A value: it does not close its descriptor when it goes.
class LogDestination {
public:
    enum Kind { PLAIN, PIPE, SOCKET, JOURNAL }; ///< JOURNAL: a socket at whose other end the system's journal reads

    constexpr LogDestination() = default;
    LogDestination(int fd, Kind kind) : m_packed((fd << KIND_BITS) | kind) {}

    /// The end of a file, made where it is missing; or a FIFO, which is opened for reading too: its reader may come
    /// later, and come and go. A link is followed only in a directory that others may not write to. Undecided, with
    /// errno set, when it cannot be opened.
    static LogDestination Open(const char* path);

    /// A pipe is opened anew: other holders of it must go on waiting for its reader. The environment variable
    /// JOURNAL_STREAM names the journal's socket. Always decided.
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

/// The state of the destination, as all processes that write to it know it. Any thread and process.
struct LogHealth {
    std::atomic<unsigned> lost{0};             ///< records whose loss is not logged yet
    std::atomic<bool> lastLineIsOpen{false};   ///< a full disk has cut a record off
    std::atomic<bool> readerHasStopped{false}; ///< a wait for it has been in vain
};

/// The same in memory that the children of later forks share. Never freed.
/// @return null when such memory is unavailable
LogHealth* NewSharedHealth();

/// Writes one record. Waits for room in a pipe or a socket whose reader lags behind: a second at most, and not again
/// until there has been some. Takes no lock and no heap and raises no SIGPIPE, so it may be called between fork and
/// exec.
/// @return false when the record has not been written whole
bool WriteToLog(LogDestination destination, LogHealth& health, const char* record, std::size_t length);

} // namespace HostPlatform

#endif
