#ifndef BUNDLECTL_MODEL_LOG_RECORD_H
#define BUNDLECTL_MODEL_LOG_RECORD_H

#include "log_time.h"

#include <sys/types.h>

#include <string>
#include <string_view>

namespace Model {

/// One record of the server's log. Its texts are pieces of the line from which it was read, and valid as long as that
/// line. Control characters in them are C escapes, so the texts can be printed unchanged.
struct LogRecord {
    static constexpr int INFO = 1;
    static constexpr int ERROR = 3;

    Time time;
    int level = INFO;
    int module = 0;
    int flag = 0;
    pid_t pid = 0;
    pid_t thread = 0;
    std::string_view source; ///< file and line, or "-"
    std::string_view message;
    std::string_view line; ///< the whole record, without the line's end and without text before it
};

/// Reads a line, given without its end, as a record. Skips a priority before it ("<6>").
bool ParseRecord(std::string_view line, LogRecord& record);

/// Where in the line a record begins. It may follow a text without a line end. npos: no record.
std::size_t FindRecord(std::string_view line);

/// The levels by name: "info", "error", or a number.
std::string LevelName(int level);

} // namespace Model

#endif
