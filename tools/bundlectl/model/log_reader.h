#ifndef BUNDLECTL_MODEL_LOG_READER_H
#define BUNDLECTL_MODEL_LOG_READER_H

#include "log_record.h"
#include "log_source.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Model {

/// What a reader has met. What it could not read is counted and left out.
struct LogCounts {
    std::uint64_t records = 0;
    std::uint64_t foreign = 0;   ///< lines, and parts of lines, that are no records: what items print, say
    std::uint64_t broken = 0;    ///< records that are not whole, because a disk was full or the log was cut
    std::uint64_t cut = 0;       ///< records that reach the longest size there is, whose messages may lack their ends
    std::uint64_t lost = 0;      ///< records of which the log says that they were lost
    std::uint64_t stepsBack = 0; ///< times that the clock was set back by more than a second
};

/// A line of the log, or a part of one.
struct LogLine {
    enum Kind { RECORD, FOREIGN, BROKEN };

    Kind kind = FOREIGN;
    LogRecord record;      ///< of a RECORD
    std::string_view text; ///< without its end; not escaped unless it is a record's
};

/// Reads a log of any length in a fixed amount of memory.
class LogReader {
public:
    /// What to do with a last line that has no end: a log that is followed may still get it.
    enum class LastLine { TAKE, LEAVE };

    explicit LogReader(std::unique_ptr<LogSource> source, LastLine lastLine = LastLine::TAKE);

    /// The next line, valid until the next call. False when there are no more, or, while a log is followed, no more
    /// yet.
    bool Next(LogLine& line);

    /// The next record; the rest is passed over.
    bool Next(LogRecord& record);

    const LogCounts& Counts() const { return m_counts; }

    /// Sentences for people on what could not be read. Empty when that was nothing.
    std::vector<std::string> Troubles() const;

private:
    bool NextLine(std::string_view& line, bool& isWhole);
    bool Fill();
    void Classify(std::string_view text, bool isWhole, LogLine& line);
    void Count(const LogRecord& record);

    const std::unique_ptr<LogSource> m_source;
    const LastLine m_lastLine;
    std::vector<char> m_buffer;
    std::size_t m_begin = 0;    // of what has not been handed out
    std::size_t m_end = 0;      // of what has been read
    bool m_isSkipping = false;  // the rest of a line that is too long
    std::string_view m_pending; // the record that stands behind foreign text in its line
    Time m_lastTime;
    LogCounts m_counts;
};

} // namespace Model

#endif
