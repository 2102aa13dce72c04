#ifndef PLATFORM_HOST_LOG_LOG_DESTINATION_H
#define PLATFORM_HOST_LOG_LOG_DESTINATION_H

#include <atomic>
#include <cstddef>

namespace HostPlatform {

/// Where records go, in the size of one atomic number.
class LogDestination {
public:
    enum Kind { PLAIN, PIPE, SOCKET, JOURNAL }; ///< JOURNAL: a socket at whose other end the system's journal reads

    constexpr LogDestination() = default;
    LogDestination(int fd, Kind kind) : m_packed((fd << KIND_BITS) | kind) {}

    /// The end of a file, made where it is missing; or a FIFO, which is opened for reading too: its reader may come
    /// later, and come and go. A link is followed only in a directory that others may not write to. Undecided, with
    /// errno set, when it cannot be opened.
    static LogDestination Open(const char* path);

    /// A pipe is opened anew: other holders of it must go on waiting for its reader. The
    /// environment variable JOURNAL_STREAM names the journal's socket.
    static LogDestination StandardError();

    bool IsDecided() const { return m_packed != UNDECIDED; }
    int Fd() const { return m_packed >> KIND_BITS; }
    Kind WhatItIs() const { return static_cast<Kind>(m_packed & ((1 << KIND_BITS) - 1)); }

    void Close() const;

private:
    static constexpr int KIND_BITS = 2;
    static constexpr int UNDECIDED = -1;

    int m_packed = UNDECIDED;
};

/// What has gone wrong with the destination, for all processes that write to it.
struct LogTrouble {
    std::atomic<unsigned> lost{0};             ///< records that nobody has been told of
    std::atomic<bool> lastLineIsOpen{false};   ///< a full disk has cut a record off
    std::atomic<bool> readerHasStopped{false}; ///< it has been waited for once
};

/// Memory that the children of later forks share; null when there is none to be had.
LogTrouble* NewSharedTrouble();

/// Writes one record. Of a pipe or a socket whose reader lags behind it waits for room, a second at most, and not again
/// until there has been some. False when it has not been written whole. Takes no lock and no heap, raises no SIGPIPE.
bool WriteToLog(LogDestination destination, LogTrouble& trouble, const char* record, std::size_t length);

} // namespace HostPlatform

#endif
