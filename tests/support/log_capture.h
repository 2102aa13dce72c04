#ifndef TESTS_SUPPORT_LOG_CAPTURE_H
#define TESTS_SUPPORT_LOG_CAPTURE_H

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

/// One record of the log.
struct CapturedRecord {
    std::string level; ///< "INFO", "ERROR" or "LEVEL<n>"
    int module = 0;
    int flag = 0;
    int pid = 0;
    int tid = 0;
    std::string source; ///< file and line, or "-"
    std::string message;
};

/// What has been logged since it was made, by this process and by the children that it has forked. The program that
/// contains it logs to a file of its own, made before the first record, that is gone with the process.
///
/// A text is found where it is a record's whole message; the answer, when it is not what was asked for, shows the log.
class LogCapture {
public:
    LogCapture();

    std::vector<CapturedRecord> Records() const;
    std::vector<std::string> Messages() const;

    ::testing::AssertionResult Has(const std::string& message) const;
    ::testing::AssertionResult HasInfo(const std::string& message) const;
    ::testing::AssertionResult HasError(const std::string& message) const;
    ::testing::AssertionResult HasPart(const std::string& part) const;

    /// Whether these messages are there in this order, others between them or not.
    ::testing::AssertionResult InOrder(const std::vector<std::string>& messages) const;

    int Count(const std::string& message) const;
    int CountPart(const std::string& part) const;

    /// Forgets what has been logged so far.
    void Restart();

private:
    ::testing::AssertionResult Find(const std::string& message, const std::string& level) const;

    std::size_t m_start = 0;
};

#endif
