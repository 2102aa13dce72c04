#ifndef TESTS_SUPPORT_LOG_RECORD_H
#define TESTS_SUPPORT_LOG_RECORD_H

#include <gtest/gtest.h>

#include <sys/types.h>

#include <string>
#include <vector>

/// One record of the host platform's log, read from its line.
struct LogRecord {
    explicit LogRecord(std::string text);

    std::string line;  ///< the whole of it
    std::string level; ///< "INFO", "ERROR" or "LEVEL<n>"
    int module = 0;
    int flag = 0;
    pid_t pid = 0;
    pid_t thread = 0;
    std::string source; ///< file and line, or "-"
    std::string message;
};

/// Whether the list has the messages in this order. Others may stand between them.
::testing::AssertionResult InOrder(const std::vector<std::string>& messages, const std::vector<std::string>& expected);

#endif
