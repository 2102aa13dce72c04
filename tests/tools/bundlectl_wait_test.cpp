#include "support/eventually.h"
#include "support/program.h"
#include "support/running_server.h"
#include "support/service_environment.h"

#include <bundle_service.h>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <string>
#include <vector>

using SystemServer::BundleService::SERVICE_NAME;
using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;

constexpr bolt_protocol_ops SILENT{nullptr, nullptr};

std::vector<std::string> Arguments(std::vector<std::string> options)
{
    options.insert(options.begin(), {"wait", "--for", "serving"});
    return options;
}

Ended Wait(const std::vector<std::string>& options)
{
    return RunToEnd(BUNDLECTL, Arguments(options));
}

std::vector<std::string> CommandLine(const std::vector<std::string>& options)
{
    std::vector<std::string> arguments = Arguments(options);
    arguments.insert(arguments.begin(), BUNDLECTL);
    return arguments;
}

} // namespace

TEST(BundlectlWait, EndsAtOnceIfAServerServes)
{
    const RunningServer server(SERVICE_NAME, SILENT);
    ASSERT_TRUE(server.IsRegistered()) << LogText();
    for (const auto& options : std::vector<std::vector<std::string>>{{}, {"--pid", std::to_string(::getpid())}}) {
        const Ended ended = Wait(options);
        EXPECT_EQ(ended.status, 0);
        EXPECT_EQ(ended.output + ended.errors, "");
    }
}

TEST(BundlectlWait, EndsWhenAServerBeginsToServe)
{
    Program waiting(CommandLine({}));
    EXPECT_FALSE(Eventually(300ms, [&] { return ::kill(waiting.Pid(), 0) != 0; }));
    const RunningServer server(SERVICE_NAME, SILENT);
    ASSERT_TRUE(server.IsRegistered()) << LogText();
    EXPECT_EQ(waiting.Wait(), 0) << waiting.Errors();
}

TEST(BundlectlWait, EndsWithFiveWhenTheTimeIsOver)
{
    const Clock::time_point begin = Clock::now();
    const Ended ended = Wait({"--timeout", "1s"});
    EXPECT_EQ(ended.status, 5);
    EXPECT_GE(Clock::now() - begin, 1s);
    EXPECT_EQ(ended.errors.rfind("bundlectl: no server serves within 1 s.", 0), 0U) << ended.errors;
}

TEST(BundlectlWait, KeepsWaitingAtADeadServersSocket)
{
    {
        const ServerProcess killed(SERVICE_NAME, SILENT);
        ASSERT_TRUE(killed.IsRegistered()) << LogText();
    }
    EXPECT_EQ(Wait({"--timeout", "1"}).status, 5);
    ::unlink(SocketPath(SERVICE_NAME).c_str());
}

TEST(BundlectlWait, EndsWithFourWhenTheServerThatItWaitsForHasEnded)
{
    Program server({"/bin/sleep", "1000"});
    Program waiting(CommandLine({"--timeout", "24h", "--pid", std::to_string(server.Pid())}));
    EXPECT_FALSE(Eventually(300ms, [&] { return ::kill(waiting.Pid(), 0) != 0; }));
    const std::string pid = std::to_string(server.Pid());
    server.Signal(SIGKILL);
    server.Wait();
    EXPECT_EQ(waiting.Wait(), 4);
    EXPECT_EQ(waiting.Errors().rfind("bundlectl: process " + pid + " has ended before it served.", 0), 0U)
        << waiting.Errors();
}

TEST(BundlectlWait, EndsWithFourIfAnotherServerHasTheService)
{
    const RunningServer server(SERVICE_NAME, SILENT);
    ASSERT_TRUE(server.IsRegistered()) << LogText();
    const std::string other = std::to_string(::getppid());
    const Ended ended = Wait({"--pid", other});
    EXPECT_EQ(ended.status, 4);
    EXPECT_EQ(
        ended.errors.rfind("bundlectl: process " + std::to_string(::getpid()) + " serves, and not process " + other, 0),
        0U)
        << ended.errors;
}

TEST(BundlectlWait, EndsWithFourIfItMayNotConnect)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    const RunningServer server(SERVICE_NAME, SILENT);
    ASSERT_TRUE(server.IsRegistered()) << LogText();
    std::vector<std::string> arguments = CommandLine({});
    arguments.insert(arguments.begin(), {"--reuid=65534", "--regid=65534", "--clear-groups"});
    const Ended ended = RunToEnd("/usr/bin/setpriv", arguments);
    EXPECT_EQ(ended.status, 4);
    EXPECT_TRUE(Has(ended.errors, "(Permission denied)")) << ended.errors;
}
