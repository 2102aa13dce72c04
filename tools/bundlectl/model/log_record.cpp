#include "log_record.h"

#include <charconv>

namespace Model {

namespace {

/// Extracts the columns of a line one by one.
class Columns {
public:
    explicit Columns(std::string_view line) : m_rest(line) {}

    /// Extracts up to the next blank, and skips the blank. False when there is no blank.
    bool Take(std::string_view& column)
    {
        const std::size_t end = m_rest.find(' ');
        if (end == std::string_view::npos || end == 0) {
            return false;
        }
        column = m_rest.substr(0, end);
        m_rest.remove_prefix(end + 1);
        return true;
    }

    bool Take(int& number)
    {
        std::string_view column;
        if (!Take(column)) {
            return false;
        }
        const auto [end, error] = std::from_chars(column.data(), column.data() + column.size(), number);
        return error == std::errc() && end == column.data() + column.size();
    }

    bool TakeLevel(int& level)
    {
        std::string_view name;
        if (!Take(name)) {
            return false;
        }
        if (name == "INFO" || name == "ERROR") {
            level = name == "INFO" ? LogRecord::INFO : LogRecord::ERROR;
            return true;
        }
        constexpr std::string_view other = "LEVEL";
        if (name.substr(0, other.size()) != other) {
            return false;
        }
        const char* const last = name.data() + name.size();
        const auto [end, error] = std::from_chars(name.data() + other.size(), last, level);
        return error == std::errc() && end == last;
    }

    std::string_view Rest() const { return m_rest; }

private:
    std::string_view m_rest;
};

std::string_view WithoutPriority(std::string_view line)
{
    if (line.size() > 3 && line[0] == '<' && line[1] >= '0' && line[1] <= '7' && line[2] == '>') {
        line.remove_prefix(3);
    }
    return line;
}

} // namespace

bool ParseRecord(std::string_view line, LogRecord& record)
{
    line = WithoutPriority(line);
    const std::optional<Time> time = ParseLogTime(line);
    if (!time || line.size() <= LOG_TIME_SIZE || line[LOG_TIME_SIZE] != ' ') {
        return false;
    }
    Columns columns(line.substr(LOG_TIME_SIZE + 1));
    record.time = *time;
    record.line = line;
    if (!columns.TakeLevel(record.level) || !columns.Take(record.module) || !columns.Take(record.flag) ||
        !columns.Take(record.pid) || !columns.Take(record.thread) || !columns.Take(record.source)) {
        return false;
    }
    record.message = columns.Rest();
    return record.pid > 0 && record.thread > 0;
}

std::size_t FindRecord(std::string_view line)
{
    // Searches for a letter that has a fixed place in each time and is rare elsewhere.
    constexpr std::size_t letter = 10;
    LogRecord record;
    for (std::size_t place = line.find('T', letter); place != std::string_view::npos;
         place = line.find('T', place + 1)) {
        if (ParseRecord(line.substr(place - letter), record)) {
            return place - letter;
        }
    }
    return std::string_view::npos;
}

std::string LevelName(int level)
{
    switch (level) {
    case LogRecord::INFO:
        return "info";
    case LogRecord::ERROR:
        return "error";
    default:
        return "level " + std::to_string(level);
    }
}

} // namespace Model
