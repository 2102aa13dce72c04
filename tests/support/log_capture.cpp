#include "support/log_capture.h"

#include <zq_log.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <sstream>
#include <utility>

namespace {

/// The file of this process's records. It has no name, so nothing has to remove it.
class LogFile {
public:
    LogFile() : m_fd(::memfd_create("log", MFD_CLOEXEC))
    {
        const std::string path = "/proc/self/fd/" + std::to_string(m_fd);
        if (m_fd < 0 || ::setenv("ZQ_LOG_FILE", path.c_str(), 1) != 0) {
            std::abort();
        }
        // Opens the log now, so that later counts of descriptors include it.
        ZQ_WriteLog(0, 1, 0, 0, nullptr, 0, "the log is open");
    }

    std::string TextFrom(std::size_t start) const
    {
        std::string text;
        std::array<char, 65536> chunk{};
        for (;;) {
            const auto offset = static_cast<off_t>(start + text.size());
            const ssize_t size = ::pread(m_fd, chunk.data(), chunk.size(), offset);
            if (size <= 0) {
                return text;
            }
            text.append(chunk.data(), static_cast<std::size_t>(size));
        }
    }

    std::size_t Size() const
    {
        const off_t end = ::lseek(m_fd, 0, SEEK_END);
        return end < 0 ? 0 : static_cast<std::size_t>(end);
    }

private:
    const int m_fd;
};

const LogFile LOG_FILE;

std::string Shown(const std::vector<LogRecord>& records)
{
    std::string shown = "The log is:\n";
    for (const LogRecord& record : records) {
        shown += "  " + record.level + " " + std::to_string(record.thread) + " [" + record.message + "]\n";
    }
    return shown;
}

} // namespace

LogCapture::LogCapture() : m_start(LOG_FILE.Size()) {}

void LogCapture::Restart()
{
    m_start = LOG_FILE.Size();
}

std::vector<LogRecord> LogCapture::Records() const
{
    std::vector<LogRecord> records;
    std::istringstream text(LOG_FILE.TextFrom(m_start));
    for (std::string line; std::getline(text, line);) {
        records.emplace_back(std::move(line));
    }
    return records;
}

std::vector<std::string> LogCapture::Messages() const
{
    std::vector<std::string> messages;
    for (const LogRecord& record : Records()) {
        messages.push_back(record.message);
    }
    return messages;
}

::testing::AssertionResult LogCapture::Find(const std::string& message, const std::string& level) const
{
    const std::vector<LogRecord> records = Records();
    const bool isThere = std::any_of(records.begin(), records.end(), [&](const LogRecord& record) {
        return record.message == message && (level.empty() || record.level == level);
    });
    if (isThere) {
        return ::testing::AssertionSuccess() << "[" << message << "] is there. " << Shown(records);
    }
    return ::testing::AssertionFailure() << "No " << level << " record [" << message << "]. " << Shown(records);
}

::testing::AssertionResult LogCapture::Has(const std::string& message) const
{
    return Find(message, "");
}

::testing::AssertionResult LogCapture::HasInfo(const std::string& message) const
{
    return Find(message, "INFO");
}

::testing::AssertionResult LogCapture::HasError(const std::string& message) const
{
    return Find(message, "ERROR");
}

::testing::AssertionResult LogCapture::HasPart(const std::string& part) const
{
    if (CountPart(part) != 0) {
        return ::testing::AssertionSuccess() << "a record with [" << part << "] is there. " << Shown(Records());
    }
    return ::testing::AssertionFailure() << "No record with [" << part << "]. " << Shown(Records());
}

::testing::AssertionResult LogCapture::InOrder(const std::vector<std::string>& messages) const
{
    return ::InOrder(Messages(), messages) << ". " << Shown(Records());
}

int LogCapture::Count(const std::string& message) const
{
    const std::vector<std::string> messages = Messages();
    return static_cast<int>(std::count(messages.begin(), messages.end(), message));
}

int LogCapture::CountPart(const std::string& part) const
{
    const std::vector<std::string> messages = Messages();
    return static_cast<int>(std::count_if(messages.begin(), messages.end(), [&](const std::string& message) {
        return message.find(part) != std::string::npos;
    }));
}
