#include "system/system_test.h"

#include "support/private_mnt.h"

#include <bundle_client.h>
#include <bundle_service.h>

#include <algorithm>
#include <filesystem>
#include <iostream>

namespace {

[[maybe_unused]] const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

} // namespace

void SystemTest::TearDown()
{
    if (!HasFailure()) {
        return;
    }
    constexpr std::size_t shown = 120;
    const std::vector<LogRecord>& log = daemon.Log();
    for (std::size_t i = log.size() - std::min(log.size(), shown); i < log.size(); ++i) {
        std::cout << log[i].line << '\n';
    }
    std::cout << daemon.Errors() << std::flush;
}

void SystemTest::Interpose(const std::string& what, const std::string& value)
{
    daemon.SetEnvironment("LD_PRELOAD", TEST_INTERPOSER);
    daemon.SetEnvironment("ASAN_OPTIONS", "verify_asan_link_order=0"); // otherwise it insists on being loaded first
    daemon.SetEnvironment(what, value);
}

void SystemTest::MoveIn(const std::string& name) const
{
    std::filesystem::rename(staging / name, collection / name);
}

std::string ExitOnFirstRun(const std::string& note, int status)
{
    return Shell("[ -e " + note + " ] && exec sleep 1000\n: > " + note + "\nexit " + std::to_string(status));
}

std::uint16_t RequestDelete(const std::string& name)
{
    using namespace SystemServer::BundleService;
    const std::string content = NameField(name);
    unsigned status = 0;
    bundle_client_request(METHOD_DELETE_BUNDLE, content.data(), content.size(),
                          static_cast<int>(DaemonRunner::PATIENCE.count()), &status);
    return static_cast<std::uint16_t>(status);
}
