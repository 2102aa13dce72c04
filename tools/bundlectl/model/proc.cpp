#include "proc.h"

#include "files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <ctime>
#include <string_view>
#include <utility>

namespace Model {

namespace {

template <class Number> bool ParseNumber(std::string_view text, Number& number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

std::string_view TakeWord(std::string_view& text)
{
    const std::size_t end = std::min(text.find(' '), text.size());
    const std::string_view word = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return word;
}

// The columns after the state, with the numbers of the manual page proc(5).
void ParseColumns(std::string_view text, ProcessStat& stat)
{
    std::uint64_t user = 0;
    std::uint64_t system = 0;
    for (int column = 4; column <= 22 && !text.empty(); ++column) {
        const std::string_view word = TakeWord(text);
        switch (column) {
        case 4:
            ParseNumber(word, stat.parent);
            break;
        case 5:
            ParseNumber(word, stat.group);
            break;
        case 6:
            ParseNumber(word, stat.session);
            break;
        case 14:
            ParseNumber(word, user);
            break;
        case 15:
            ParseNumber(word, system);
            break;
        case 20:
            ParseNumber(word, stat.threads);
            break;
        case 22:
            ParseNumber(word, stat.startTicks);
            break;
        default:
            break;
        }
    }
    stat.cpuTicks = user + system;
}

// The name is in parentheses and may contain any character, also parentheses and line ends.
std::optional<ProcessStat> ParseStat(std::string_view text)
{
    const std::size_t open = text.find('(');
    const std::size_t close = text.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close + 2 > text.size() || open == 0) {
        return std::nullopt;
    }
    ProcessStat stat;
    if (!ParseNumber(text.substr(0, open - 1), stat.pid)) {
        return std::nullopt;
    }
    stat.name = text.substr(open + 1, close - open - 1);
    std::string_view rest = text.substr(close + 2);
    const std::string_view state = TakeWord(rest);
    stat.state = state.empty() ? '?' : state.front();
    ParseColumns(rest, stat);
    return stat;
}

std::vector<pid_t> NumbersIn(const std::string& directory)
{
    std::vector<pid_t> numbers;
    for (const std::string& name : ListDirectory(directory).value_or(std::vector<std::string>())) {
        pid_t number = 0;
        if (ParseNumber(name, number)) {
            numbers.push_back(number);
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

std::vector<ProcessStat> StatsIn(const std::string& directory)
{
    std::vector<ProcessStat> stats;
    for (const pid_t number : NumbersIn(directory)) {
        const auto text = ReadFileAtMost(directory + "/" + std::to_string(number) + "/stat");
        if (auto stat = text ? ParseStat(*text) : std::nullopt) {
            stats.push_back(std::move(*stat));
        }
    }
    return stats;
}

Microseconds OfTicks(std::uint64_t ticks)
{
    static const auto ticksPerSecond = static_cast<std::uint64_t>(std::max(1L, ::sysconf(_SC_CLK_TCK)));
    return Microseconds(ticks * 1'000'000 / ticksPerSecond);
}

Microseconds SinceBoot()
{
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return Microseconds(static_cast<std::int64_t>(now.tv_sec) * 1'000'000 + now.tv_nsec / 1000);
}

} // namespace

std::string Proc::Path(pid_t pid, const std::string& name) const
{
    return m_root + "/" + std::to_string(pid) + "/" + name;
}

std::vector<ProcessStat> Proc::Processes() const
{
    return StatsIn(m_root);
}

std::vector<ProcessStat> Proc::Threads(pid_t pid) const
{
    return StatsIn(Path(pid, "task"));
}

std::optional<ProcessStat> Proc::Stat(pid_t pid) const
{
    const auto text = Read(pid, "stat");
    return text ? ParseStat(*text) : std::nullopt;
}

std::optional<std::string> Proc::Read(pid_t pid, const std::string& name) const
{
    return ReadFileAtMost(Path(pid, name));
}

std::optional<std::vector<std::string>> Proc::CommandLine(pid_t pid) const
{
    const auto text = Read(pid, "cmdline");
    return text ? std::optional(SplitAtNul(*text)) : std::nullopt;
}

std::optional<std::map<std::string, std::string>> Proc::Environment(pid_t pid) const
{
    const auto text = Read(pid, "environ");
    if (!text) {
        return std::nullopt;
    }
    std::map<std::string, std::string> variables;
    for (const std::string& variable : SplitAtNul(*text)) {
        const std::size_t end = variable.find('=');
        if (end != std::string::npos) {
            variables.emplace(variable.substr(0, end), variable.substr(end + 1));
        }
    }
    return variables;
}

std::optional<std::string> Proc::Link(pid_t pid, const std::string& name) const
{
    return ReadLink(Path(pid, name));
}

std::optional<uid_t> Proc::User(pid_t pid) const
{
    struct stat status {};
    return ::stat(Path(pid, "").c_str(), &status) == 0 ? std::optional(status.st_uid) : std::nullopt;
}

std::optional<std::uint64_t> Proc::ProportionalKilobytes(pid_t pid) const
{
    const auto text = Read(pid, "smaps_rollup");
    constexpr std::string_view key = "\nPss:";
    const std::size_t place = text ? text->find(key) : std::string::npos;
    if (place == std::string::npos) {
        return std::nullopt;
    }
    std::string_view rest(*text);
    rest.remove_prefix(std::min(rest.find_first_not_of(' ', place + key.size()), rest.size()));
    std::uint64_t kilobytes = 0;
    return ParseNumber(TakeWord(rest), kilobytes) ? std::optional(kilobytes) : std::nullopt;
}

std::optional<std::map<int, std::string>> Proc::Descriptors(pid_t pid) const
{
    const std::string directory = Path(pid, "fd");
    if (!ListDirectory(directory)) {
        return std::nullopt;
    }
    std::map<int, std::string> descriptors;
    for (const pid_t number : NumbersIn(directory)) {
        if (const auto target = ReadLink(directory + "/" + std::to_string(number))) {
            descriptors[number] = *target;
        }
    }
    return descriptors;
}

Microseconds Proc::Uptime(const ProcessStat& process) const
{
    return std::max(SinceBoot() - OfTicks(process.startTicks), Microseconds(0));
}

Time Proc::StartTime(const ProcessStat& process) const
{
    return Now() - Uptime(process);
}

Microseconds Proc::CpuTime(const ProcessStat& process)
{
    return OfTicks(process.cpuTicks);
}

} // namespace Model
