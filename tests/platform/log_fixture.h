#ifndef TESTS_PLATFORM_LOG_FIXTURE_H
#define TESTS_PLATFORM_LOG_FIXTURE_H

#include "support/files.h"
#include "support/temporary_directory.h"

#include <zq_log.h>

#include <gtest/gtest.h>

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#define LOG(...) ZQ_WriteLog(4, 1, 0, 0, "src/x.cpp", 7, __VA_ARGS__)

/// A regular expression for the time of a record. Its group ends with the second.
constexpr char TIME[] = "([0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2})\\.[0-9]{6}Z";

/// The message of a record, which follows its columns.
std::string MessageOf(const std::string& record);

/// A process decides once where its log goes, so each test logs in a child of its own.
class TheLog : public ::testing::Test {
protected:
    /// Runs the steps in a child whose standard error is a file. Returns the child's exit status.
    int InChild(const std::function<void()>& steps);

    /// The same, with the log in a file.
    int InChildWithFile(const std::function<void()>& steps);

    /// Expects two records on standard error: that the named file cannot be opened, and the test's own.
    void ExpectComplaintOf(int error) const;

    TemporaryDirectory m_directory;
    const std::string m_file = m_directory / "log";
    const std::string m_standardError = m_directory / "stderr";
    pid_t m_child = -1;
};

#endif
