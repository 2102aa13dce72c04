#ifndef TESTS_SUPPORT_LOG_CAPTURE_H
#define TESTS_SUPPORT_LOG_CAPTURE_H

#include "support/log_record.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

/// The records that this process and its forked children have written since the object was made. A program that links
/// this file logs to an unnamed file of its own, which is gone when the process ends.
///
/// A text matches a record's whole message. A failing result shows the log.
class LogCapture {
public:
    LogCapture();

    std::vector<LogRecord> Records() const;
    std::vector<std::string> Messages() const;

    ::testing::AssertionResult Has(const std::string& message) const;
    ::testing::AssertionResult HasInfo(const std::string& message) const;
    ::testing::AssertionResult HasError(const std::string& message) const;
    ::testing::AssertionResult HasPart(const std::string& part) const;

    /// Whether the log has these messages in this order. Others may stand between them.
    ::testing::AssertionResult InOrder(const std::vector<std::string>& messages) const;

    int Count(const std::string& message) const;
    int CountPart(const std::string& part) const;

    /// Forgets the records so far.
    void Restart();

private:
    ::testing::AssertionResult Find(const std::string& message, const std::string& level) const;

    std::size_t m_start = 0;
};

#endif
