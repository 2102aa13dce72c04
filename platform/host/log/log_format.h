#ifndef PLATFORM_HOST_LOG_LOG_FORMAT_H
#define PLATFORM_HOST_LOG_LOG_FORMAT_H

#include <cstdarg>
#include <cstddef>
#include <ctime>

namespace HostPlatform {

/// A record's most bytes, its prefix and line end included: what a pipe takes in one piece.
constexpr std::size_t RECORD_SIZE = 4096;

/// A record's columns apart from the message.
struct RecordHead {
    timespec time;
    int module;
    int level;
    int flag;
    int pid;
    int tid;
    const char* file; ///< null when the call gives none; line is then not shown
    int line;
};

/// What stands before the columns. PRIORITY: "<6>" and the like, which the system's journal reads and takes away.
enum class Prefix { NONE, PRIORITY };

/// Formats one record. A record that is too long is cut, never inside a UTF-8 character. Takes no lock and no heap, so
/// it may be called between fork and exec.
/// @return the record's length, its prefix and line end included; it is not NUL-terminated
std::size_t FormatRecord(char (&record)[RECORD_SIZE], Prefix prefix, const RecordHead& head, const char* format,
                         va_list arguments) __attribute__((format(printf, 4, 0)));

} // namespace HostPlatform

#endif
