#include "support/log_record.h"

#include <algorithm>
#include <sstream>
#include <utility>

LogRecord::LogRecord(std::string text) : line(std::move(text))
{
    std::istringstream columns(line);
    std::string time;
    columns >> time >> level >> module >> flag >> pid >> thread >> source;
    columns.get(); // skips the blank before the message, which may itself begin with blanks
    std::getline(columns, message);
}

::testing::AssertionResult InOrder(const std::vector<std::string>& messages, const std::vector<std::string>& expected)
{
    auto from = messages.begin();
    for (const std::string& message : expected) {
        from = std::find(from, messages.end(), message);
        if (from == messages.end()) {
            return ::testing::AssertionFailure() << "[" << message << "] is missing or not in its place";
        }
        ++from;
    }
    return ::testing::AssertionSuccess();
}
