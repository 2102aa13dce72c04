#include "system/hostile_service/hostile_service.h"

#include "support/scale.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <thread>

namespace {

using namespace std::chrono_literals;

bool IsTime(const std::string& text)
{
    const std::string form = "0000-00-00T00:00:00.000000Z ";
    return text.size() > form.size() && std::equal(form.begin(), form.end(), text.begin(), [](char wanted, char c) {
               return wanted == '0' ? std::isdigit(static_cast<unsigned char>(c)) != 0 : wanted == c;
           });
}

} // namespace

bool IsSoundRecord(const std::string& line)
{
    constexpr std::size_t longest = 4096 - 1; // and the line end
    return line.size() <= longest && IsTime(line) && std::none_of(line.begin(), line.end(), [](char c) {
               return static_cast<unsigned char>(c) < 0x20U || c == 0x7F;
           });
}

void AllowAllDescriptors()
{
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

void Report(const std::string& what, const std::string& figure)
{
    std::cout << "[ MEASURED ] " << what << ": " << figure << std::endl;
}

void HostileService::StartServing()
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    ASSERT_NE(Radio(), 0);
}

void HostileService::Withstands(int rounds, const std::function<void()>& attack, long kilobytes)
{
    attack();
    ExpectGoodService();
    ASSERT_TRUE(ComesToRest());
    const auto descriptors = daemon.Descriptors();
    const int threads = daemon.Threads();
    const long memory = PrivateKilobytes();
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
        attack();
        ExpectGoodService();
    }
    ExpectDescriptors(descriptors);
    // A thread of its own writes deletions to the disk. A busy disk delays its end.
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [&] { return daemon.Threads() <= threads; })) << daemon.Threads();
    EXPECT_TRUE(ComesToRest());
    const long memoryAfter = PrivateKilobytes();
#if !defined(__SANITIZE_ADDRESS__) &&                                                                                  \
    !defined(__SANITIZE_THREAD__) // the sanitizers keep freed memory and data of their own
    EXPECT_LE(memoryAfter, memory + kilobytes);
#else
    static_cast<void>(kilobytes);
#endif
    Report("memory after the first round and after " + std::to_string(rounds) + " more, kB",
           std::to_string(memory) + ", " + std::to_string(memoryAfter));
}

void HostileService::ExpectGoodService()
{
    const UnixClient client(SERVICE_SOCKET);
    EXPECT_EQ(client.Ask(DeletePacket(NO_BUNDLE), DaemonRunner::PATIENCE), StatusPacket(404));
    EXPECT_TRUE(daemon.IsRunning());
}

bool HostileService::ComesToRest()
{
    static constexpr auto tick = 10ms; // the figure's unit; leaves room for a scan a second and other wake-ups
    return Eventually(DaemonRunner::PATIENCE, [this] {
        const auto before = ProcessOf::ProcessorTime(daemon.Pid());
        std::this_thread::sleep_for(300ms); // the interval of the measurement
        return ProcessOf::ProcessorTime(daemon.Pid()) - before <= tick;
    });
}

void HostileService::ExpectDescriptors(const std::map<int, std::string>& expected)
{
    std::map<int, std::string> descriptors;
    Eventually(DaemonRunner::PATIENCE, [&] {
        descriptors = daemon.Descriptors();
        return descriptors == expected;
    });
    EXPECT_EQ(descriptors, expected);
}

long HostileService::PrivateKilobytes()
{
    return std::stol(ProcessOf::Status(daemon.Pid(), "RssAnon"));
}

void HostileService::ExpectRadioIsDeleted()
{
    // A relaunch takes a second, in which the item cannot be stopped.
    EXPECT_TRUE(Eventually(DaemonRunner::PATIENCE, [] { return RequestDelete("radio") == 200; }));
    EXPECT_FALSE(Exists(collection / "radio"));
}

void HostileService::LimitDescriptors(rlim_t limit)
{
    rlimit limits{};
    ASSERT_EQ(::prlimit(daemon.Pid(), RLIMIT_NOFILE, nullptr, &limits), 0);
    limits.rlim_cur = limit;
    ASSERT_EQ(::prlimit(daemon.Pid(), RLIMIT_NOFILE, &limits, nullptr), 0);
}

int HostileService::UnsoundLinesOfRotatedLog()
{
    std::ifstream log(daemon.LogFile(), std::ios::binary);
    int unsound = 0;
    for (std::string line; std::getline(log, line);) {
        if (!IsSoundRecord(line)) {
            std::cout << "unsound: " << line << std::endl;
            ++unsound;
        }
    }
    std::filesystem::resize_file(daemon.LogFile(), 0);
    return unsound;
}
