#include "system/system_test.h"

#include "support/private_mnt.h"

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <sstream>

namespace {

[[maybe_unused]] const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

constexpr std::size_t NAME_FIELD_SIZE = 128;
constexpr std::uint8_t METHOD_DELETE = 4;

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
    daemon.SetEnvironment("ASAN_OPTIONS", "verify_asan_link_order=0"); // it insists on being the first otherwise
    daemon.SetEnvironment(what, value);
}

void SystemTest::MoveIn(const std::string& name) const
{
    std::filesystem::rename(staging / name, collection / name);
}

std::string Shell(const std::string& commands)
{
    return "#!/bin/sh\n" + commands + "\n";
}

std::string ExitOnFirstRun(const std::string& note, int status)
{
    return Shell("[ -e " + note + " ] && exec sleep 1000\n: > " + note + "\nexit " + std::to_string(status));
}

std::string NameField(const std::string& name)
{
    std::string field = name;
    field.resize(NAME_FIELD_SIZE, '\0');
    return field;
}

std::uint16_t RequestDelete(const std::string& name)
{
    const UnixClient client(SERVICE_SOCKET);
    const auto reply = client.Ask(PacketOf(METHOD_DELETE, 0, NameField(name)), DaemonRunner::PATIENCE);
    return reply ? HeaderOf(*reply).status : std::uint16_t{0};
}

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

::testing::AssertionResult InOrder(const std::vector<std::string>& messages, const std::vector<std::string>& expected)
{
    auto from = messages.begin();
    for (const std::string& message : expected) {
        from = std::find(from, messages.end(), message);
        if (from == messages.end()) {
            return ::testing::AssertionFailure() << "not found, or not in its place: " << message;
        }
        ++from;
    }
    return ::testing::AssertionSuccess();
}
