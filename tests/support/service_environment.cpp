#include "support/service_environment.h"

#include "support/files.h"
#include "support/private_mnt.h"
#include "support/temporary_directory.h"

#include <zq_log.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <system_error>

namespace {

std::string g_logFile;

/// Lets each test begin with an empty log, also when all of them run in one process.
class EmptyLog : public ::testing::EmptyTestEventListener {
public:
    void OnTestStart(const ::testing::TestInfo& /*test*/) override
    {
        std::error_code ignored;
        std::filesystem::resize_file(g_logFile, 0, ignored);
    }
};

class LogToFile : public ::testing::Environment {
public:
    void SetUp() override
    {
        m_directory = std::make_unique<TemporaryDirectory>();
        g_logFile = *m_directory / "log";
        ::testing::UnitTest::GetInstance()->listeners().Append(new EmptyLog);
        ASSERT_EQ(::setenv("ZQ_LOG_FILE", g_logFile.c_str(), 1), 0);
    }
    void TearDown() override { m_directory.reset(); }

private:
    std::unique_ptr<TemporaryDirectory> m_directory;
};

[[maybe_unused]] const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);
[[maybe_unused]] const auto* const g_logToFile = ::testing::AddGlobalTestEnvironment(new LogToFile);

} // namespace

std::string LogText()
{
    return ReadFile(g_logFile);
}

void OpenLog()
{
    ZQ_WriteLog(0, 1, 0, 0, nullptr, 0, "the log is open");
}

int CountInLog(const std::string& text)
{
    const std::string log = LogText();
    int count = 0;
    for (std::size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + text.size())) {
        ++count;
    }
    return count;
}

std::string SocketPath(const std::string& service)
{
    return "/mnt/bolt/" + service;
}
