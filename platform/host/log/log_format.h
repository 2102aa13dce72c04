#ifndef PLATFORM_HOST_LOG_LOG_FORMAT_H
#define PLATFORM_HOST_LOG_LOG_FORMAT_H

#include <cstdarg>
#include <cstddef>
#include <ctime>

namespace HostPlatform {

/// The largest record in bytes, with its prefix and line end. A pipe takes that many in one piece.
constexpr std::size_t RECORD_SIZE = 4096;

/// A record's columns apart from the message.
struct RecordHead {
    timespec time; ///< of CLOCK_REALTIME; shown in UTC with microseconds
    int module;
    int level; ///< 1 and 3 are shown as words
    int flag;
    int pid;
    int tid;          ///< the kernel's number of the thread
    const char* file; ///< not owned; null: a dash is shown in place of file and line
    int line;
};

/// The text before the columns. PRIORITY: "<6>" and the like, which the system's journal reads and removes.
enum class Prefix { NONE, PRIORITY };

/// Formats one record. Control characters become C escapes. A record that is too long is cut, never inside a UTF-8
/// character or an escape. Takes no lock and no heap, so it may be called between fork and exec.
/// @param arguments are undefined afterwards, as after vsnprintf
/// @return the record's length, its prefix and line end included; it is not NUL-terminated
std::size_t FormatRecord(char (&record)[RECORD_SIZE], Prefix prefix, const RecordHead& head, const char* format,
                         va_list arguments) __attribute__((format(printf, 4, 0)));

} // namespace HostPlatform

#endif
