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

/// Counts of what a reader has found. It counts and skips what it cannot read.
struct LogCounts {
    std::uint64_t records = 0;
    std::uint64_t foreign = 0;   ///< lines, and parts of lines, that are not records, such as output of items
    std::uint64_t broken = 0;    ///< incomplete records, because a disk was full or the log was cut
    std::uint64_t cut = 0;       ///< records of the maximum size, whose messages may lack their ends
    std::uint64_t lost = 0;      ///< records that the log reports as lost
    std::uint64_t stepsBack = 0; ///< times that the clock was set back by more than a second
};

/// A line of the log, or a part of one.
struct LogLine {
    enum Kind { RECORD, FOREIGN, BROKEN };

    Kind kind = FOREIGN;
    LogRecord record;      ///< of a RECORD
    std::string_view text; ///< without its line end; only a record's text is escaped
};

/// Reads a log of any length in a fixed amount of memory.
class LogReader {
public:
    /// How to handle a last line without an end: in a followed log, the end may still come.
    enum class LastLine { TAKE, LEAVE };

    explicit LogReader(std::unique_ptr<LogSource> source, LastLine lastLine = LastLine::TAKE);

    /// The next line, valid until the next call. False at the end of the log; in a followed log, more may come later.
    bool Next(LogLine& line);

    /// The next record. Skips everything else.
    bool Next(LogRecord& record);

    const LogCounts& Counts() const { return m_counts; }

    /// Sentences for people about what could not be read. Empty when everything was read.
    std::vector<std::string> Troubles() const;

private:
    bool NextLine(std::string_view& line, bool& isWhole);
    bool Fill();
    void Classify(std::string_view text, bool isWhole, LogLine& line);
    void Count(const LogRecord& record);

    const std::unique_ptr<LogSource> m_source;
    const LastLine m_lastLine;
    std::vector<char> m_buffer;
    std::size_t m_begin = 0;    // begin of the bytes that are not processed yet
    std::size_t m_end = 0;      // end of the bytes that have been read
    bool m_isSkipping = false;  // skips the rest of a line that is too long
    std::string_view m_pending; // the record after foreign text in its line
    Time m_lastTime;
    LogCounts m_counts;
};

} // namespace Model

#endif
