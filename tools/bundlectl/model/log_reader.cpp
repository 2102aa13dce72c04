#include "log_reader.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace Model {

namespace {

/// The longest record, its line end included. A record may be cut some bytes earlier, at the beginning of a character
/// or an escape.
constexpr std::size_t RECORD_SIZE = 4096;
constexpr std::size_t LONGEST_UNIT = 8;

/// A longer line of an item is skipped.
constexpr std::size_t BUFFER_SIZE = std::size_t{64} * 1024;

std::uint64_t LostRecords(std::string_view message)
{
    constexpr std::string_view rest = " earlier records are lost";
    std::uint64_t count = 0;
    const auto [end, error] = std::from_chars(message.data(), message.data() + message.size(), count);
    const std::string_view after = message.substr(static_cast<std::size_t>(end - message.data()));
    return error == std::errc() && after.substr(0, rest.size()) == rest ? count : 0;
}

void Tell(std::vector<std::string>& sentences, std::uint64_t count, const char* what)
{
    if (count > 0) {
        sentences.push_back(std::to_string(count) + what);
    }
}

} // namespace

LogReader::LogReader(std::unique_ptr<LogSource> source, LastLine lastLine)
    : m_source(std::move(source)), m_lastLine(lastLine), m_buffer(BUFFER_SIZE)
{}

bool LogReader::Next(LogRecord& record)
{
    LogLine line;
    while (Next(line)) {
        if (line.kind == LogLine::RECORD) {
            record = line.record;
            return true;
        }
    }
    return false;
}

bool LogReader::Next(LogLine& line)
{
    std::string_view text;
    bool isWhole = true;
    if (!m_pending.empty()) {
        text = m_pending;
        m_pending = {};
    } else if (!NextLine(text, isWhole)) {
        return false;
    }
    Classify(text, isWhole, line);
    return true;
}

void LogReader::Classify(std::string_view text, bool isWhole, LogLine& line)
{
    line.text = text;
    if (ParseRecord(text, line.record)) {
        line.kind = isWhole ? LogLine::RECORD : LogLine::BROKEN;
        if (isWhole) {
            Count(line.record);
        } else {
            ++m_counts.broken;
        }
        return;
    }
    if (const std::size_t place = FindRecord(text); isWhole && place != std::string_view::npos) {
        line.text = text.substr(0, place);
        m_pending = text.substr(place);
    }
    line.kind = ParseLogTime(line.text) ? LogLine::BROKEN : LogLine::FOREIGN;
    ++(line.kind == LogLine::BROKEN ? m_counts.broken : m_counts.foreign);
}

void LogReader::Count(const LogRecord& record)
{
    ++m_counts.records;
    m_counts.cut += record.line.size() + 1 + LONGEST_UNIT > RECORD_SIZE ? 1U : 0U;
    m_counts.lost += record.level == LogRecord::ERROR ? LostRecords(record.message) : 0;
    m_counts.stepsBack += record.time + std::chrono::seconds(1) < m_lastTime ? 1U : 0U;
    m_lastTime = record.time;
}

bool LogReader::NextLine(std::string_view& line, bool& isWhole)
{
    std::size_t searched = 0; // searched part of the incomplete line at the beginning of the buffer
    for (;;) {
        const char* const begin = m_buffer.data() + m_begin;
        const void* const end = std::memchr(begin + searched, '\n', m_end - m_begin - searched);
        if (end != nullptr) {
            const auto size = static_cast<std::size_t>(static_cast<const char*>(end) - begin);
            m_begin += size + 1;
            if (m_isSkipping) {
                m_isSkipping = false;
                searched = 0;
                continue;
            }
            line = {begin, size};
            isWhole = true;
            return true;
        }
        searched = m_end - m_begin;
        if (searched >= m_buffer.size() - 1) { // no record is that long
            m_begin = m_end = searched = 0;
            m_counts.foreign += m_isSkipping ? 0U : 1U;
            m_isSkipping = true;
        }
        if (!Fill()) {
            break;
        }
    }
    if (m_lastLine == LastLine::LEAVE || m_begin == m_end || m_isSkipping) {
        return false;
    }
    line = {m_buffer.data() + m_begin, m_end - m_begin};
    m_begin = m_end;
    isWhole = false;
    return true;
}

bool LogReader::Fill()
{
    if (m_begin > 0) {
        std::memmove(m_buffer.data(), m_buffer.data() + m_begin, m_end - m_begin);
        m_end -= m_begin;
        m_begin = 0;
    }
    const std::size_t count = m_source->Read(m_buffer.data() + m_end, m_buffer.size() - m_end);
    m_end += count;
    return count > 0;
}

std::vector<std::string> LogReader::Troubles() const
{
    std::vector<std::string> sentences = m_source->Troubles();
    Tell(sentences, m_counts.lost, " record(s) were lost before they reached the log.");
    Tell(sentences, m_counts.broken, " record(s) are not whole and were left out.");
    Tell(sentences, m_counts.cut, " record(s) have the longest size there is, and may lack their ends.");
    Tell(sentences, m_counts.stepsBack, " time(s) the clock was set back: spans across that are wrong.");
    return sentences;
}

} // namespace Model
