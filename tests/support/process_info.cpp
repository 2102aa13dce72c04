#include "support/process_info.h"

#include "support/collection_builder.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace ProcessOf {

namespace {

namespace fs = std::filesystem;

fs::path ProcPath(pid_t pid, const char* what)
{
    return fs::path("/proc") / std::to_string(pid) / what;
}

std::vector<std::string> SplitAtNul(const std::string& text)
{
    std::vector<std::string> pieces;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\0', begin), text.size());
        pieces.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return pieces;
}

std::vector<fs::path> Entries(const fs::path& directory)
{
    std::vector<fs::path> entries;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error)) {
        entries.push_back(entry->path());
    }
    return entries;
}

// 0 when the text does not begin with a number.
int NumberIn(const std::string& text)
{
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

// The sum of the first "count" of these: own time in user mode and in system mode, then the same of the children.
std::chrono::milliseconds TimesOf(pid_t pid, int count)
{
    const std::string stat = ReadFile(ProcPath(pid, "stat"));
    // The command's name is in parentheses and may contain any character.
    std::istringstream fields(stat.substr(std::min(stat.rfind(')') + 1, stat.size())));
    std::string skipped;
    for (int i = 0; i < 11; ++i) {
        fields >> skipped;
    }
    long ticks = 0;
    for (long time = 0; count > 0 && fields >> time; --count) {
        ticks += time;
    }
    return std::chrono::milliseconds(ticks * 1000 / ::sysconf(_SC_CLK_TCK));
}

// Under script/test --emulated the kernel runs programs with an emulator. Then /proc shows the emulator's name, the
// path of the program, and the program's arguments.
bool IsEmulated(const std::vector<std::string>& commandLine)
{
    return commandLine.size() > 2 && fs::path(commandLine[0]).filename() == "arm-binfmt-P";
}

// The line of a /proc file that begins with the text; empty when there is none.
std::string LineOf(const fs::path& path, const std::string& begin)
{
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.rfind(begin, 0) == 0) {
            return line;
        }
    }
    return {};
}

std::string FirstLine(const fs::path& path)
{
    return LineOf(path, "");
}

} // namespace

std::vector<pid_t> All()
{
    std::vector<pid_t> pids;
    for (const fs::path& entry : Entries("/proc")) {
        const int pid = NumberIn(entry.filename());
        if (pid > 0) {
            pids.push_back(pid);
        }
    }
    return pids;
}

bool IsAlive(pid_t pid)
{
    const std::string state = Status(pid, "State");
    return !state.empty() && state[0] != 'Z' && state[0] != 'X';
}

std::vector<pid_t> Zombies(pid_t parent)
{
    std::vector<pid_t> zombies;
    for (const pid_t pid : All()) {
        if (NumberIn(Status(pid, "PPid")) == parent && Status(pid, "State").rfind('Z', 0) == 0) {
            zombies.push_back(pid);
        }
    }
    return zombies;
}

std::vector<std::string> CommandLine(pid_t pid)
{
    std::vector<std::string> words = SplitAtNul(ReadFile(ProcPath(pid, "cmdline")));
    if (IsEmulated(words)) {
        words.erase(words.begin(), words.begin() + 2);
    }
    return words;
}

std::vector<std::string> Environment(pid_t pid)
{
    return SplitAtNul(ReadFile(ProcPath(pid, "environ")));
}

std::string Executable(pid_t pid)
{
    std::error_code error;
    const std::vector<std::string> words = SplitAtNul(ReadFile(ProcPath(pid, "cmdline")));
    return (IsEmulated(words) ? fs::canonical(words[1], error) : fs::read_symlink(ProcPath(pid, "exe"), error))
        .string();
}

std::map<int, std::string> Descriptors(pid_t pid)
{
    std::map<int, std::string> descriptors;
    for (const fs::path& entry : Entries(ProcPath(pid, "fd"))) {
        std::error_code error;
        const std::string target = fs::read_symlink(entry, error).string();
        if (!error) {
            descriptors[NumberIn(entry.filename())] = target;
        }
    }
    return descriptors;
}

std::string Status(pid_t pid, const std::string& field)
{
    const std::string line = LineOf(ProcPath(pid, "status"), field + ":");
    const std::size_t value = line.find_first_not_of(" \t", field.size() + 1);
    return value == std::string::npos ? "" : line.substr(value);
}

std::string Limit(pid_t pid, const std::string& name)
{
    return LineOf(ProcPath(pid, "limits"), name);
}

std::chrono::milliseconds ProcessorTime(pid_t pid)
{
    return TimesOf(pid, 2);
}

std::chrono::milliseconds ProcessorTimeWithChildren(pid_t pid)
{
    return TimesOf(pid, 4);
}

std::vector<std::string> ThreadNames(pid_t pid)
{
    std::vector<std::string> names;
    for (const fs::path& task : Entries(ProcPath(pid, "task"))) {
        names.push_back(FirstLine(task / "comm"));
    }
    return names;
}

std::string StateOfThread(pid_t pid, const std::string& name)
{
    for (const fs::path& task : Entries(ProcPath(pid, "task"))) {
        if (FirstLine(task / "comm") == name) {
            const std::string stat = ReadFile(task / "stat");
            const std::size_t afterName = stat.rfind(") ");
            return afterName == std::string::npos ? "" : stat.substr(afterName + 2, 1);
        }
    }
    return {};
}

} // namespace ProcessOf
