#include "system/hot_plug/hot_plug.h"

#include <cstdlib>

namespace {

constexpr const char ADDED[] = "dir item add event happen.";
constexpr const char REMOVED[] = "dir item remove event happen.";

} // namespace

HotPlug::HotPlug()
{
    ::setenv("COLLECTION", collection.Path().c_str(), 1);
    ::setenv("STAGING", staging.Path().c_str(), 1);
}

void HotPlug::SetUp()
{
    ASSERT_TRUE(daemon.StartServing());
}

testing::AssertionResult HotPlug::IsStarted(const std::string& bundle, int times)
{
    if (daemon.WaitForLog("bundle[" + bundle + "] state changing[Starting] -> [Active]", times)) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << bundle << " is not started";
}

void HotPlug::PassScans(int count)
{
    for (; count > 0; --count) {
        const int added = daemon.CountInLog(ADDED);
        WriteFile(In("scan") + std::to_string(++m_files), "");
        ASSERT_TRUE(daemon.WaitForLog(ADDED, added + 1));
    }
}

std::vector<std::string> HotPlug::NewRecords()
{
    const std::vector<LogRecord>& log = daemon.Log();
    pid_t thread = 0;
    for (const LogRecord& record : log) {
        if (record.message == ADDED || record.message == REMOVED ||
            record.message == "dir item modified event happen.") {
            thread = record.thread;
        }
    }
    std::vector<std::string> records;
    for (; m_seen < log.size(); ++m_seen) {
        if (log[m_seen].thread == thread) {
            records.push_back(log[m_seen].level + " " + log[m_seen].message);
        }
    }
    return records;
}
