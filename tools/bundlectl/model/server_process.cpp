#include "server_process.h"

#include "common/service_directory.h"
#include "files.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <sstream>
#include <utility>

namespace Model {

namespace {

constexpr const char PROGRAM[] = "bundle_server";

// For a program of another machine, the kernel shows the emulator's words before the program's own.
std::vector<std::string> WithoutEmulator(std::vector<std::string> words)
{
    if (words.size() > 2 && BaseName(words[0]).find("binfmt") != std::string::npos) {
        words.erase(words.begin(), words.begin() + 2);
    }
    return words;
}

bool IsServerProgram(const std::vector<std::string>& words)
{
    return !words.empty() && BaseName(words.front()) == PROGRAM;
}

/// The value of "-f FILE", "-fFILE" or "--config-file=FILE". The server's options also accept an abbreviated name.
std::string ConfigurationIn(const std::vector<std::string>& arguments)
{
    const std::string name = "config-file";
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        const std::string& word = arguments[i];
        const bool isLong = word.compare(0, 2, "--") == 0;
        if (!isLong && word.compare(0, 2, "-f") == 0) {
            return word.size() > 2 ? word.substr(2) : i + 1 < arguments.size() ? arguments[i + 1] : std::string();
        }
        const std::size_t end = word.find_first_of("=:");
        if (isLong && end != std::string::npos && end > 2 && name.compare(0, end - 2, word, 2, end - 2) == 0) {
            return word.substr(end + 1);
        }
    }
    return {};
}

/// The last part of a control group's path that is a unit: "0::/system.slice/bundle-server.service".
std::string UnitIn(const std::string& groups)
{
    constexpr const char ending[] = ".service";
    const std::size_t end = groups.rfind(ending);
    if (end == std::string::npos) {
        return {};
    }
    const std::size_t begin = groups.rfind('/', end) + 1;
    return groups.substr(begin, end + std::strlen(ending) - begin);
}

/// The inodes under which sockets of that path are open.
std::set<std::string> ServiceSockets(const Proc& proc)
{
    std::set<std::string> sockets;
    std::istringstream lines(ReadFileAtMost(proc.Root() + "/net/unix", std::size_t{16} * 1024 * 1024).value_or(""));
    for (std::string line; std::getline(lines, line);) {
        const std::size_t end = line.find(std::string(" ") + SERVICE_SOCKET);
        if (end == std::string::npos || end + 1 + std::strlen(SERVICE_SOCKET) != line.size()) {
            continue;
        }
        sockets.insert("socket:[" + line.substr(line.rfind(' ', end - 1) + 1, end - line.rfind(' ', end - 1) - 1) +
                       "]");
    }
    return sockets;
}

void ReadSurroundings(const Proc& proc, const std::set<std::string>& serviceSockets, ServerProcess& server)
{
    const pid_t pid = server.stat.pid;
    server.program = proc.Link(pid, "exe").value_or("");
    server.directory = proc.Link(pid, "cwd");
    server.configuration = ConfigurationIn(server.arguments);
    if (server.directory) {
        server.configuration = AbsolutePath(*server.directory, server.configuration);
    }
    server.unit = UnitIn(proc.Read(pid, "cgroup").value_or(""));
    server.isOfOurMounts = IsOfOurMounts(proc, pid);
    const auto environment = proc.Environment(pid);
    const auto descriptors = proc.Descriptors(pid);
    server.isReadable = environment && descriptors;
    if (!server.isReadable) {
        return;
    }
    const auto variable = [&environment](const char* name) {
        const auto found = environment->find(name);
        return found == environment->end() ? std::string() : found->second;
    };
    server.logFile = AbsolutePath(server.directory.value_or(""), variable("ZQ_LOG_FILE"));
    server.journalStream = variable("JOURNAL_STREAM");
    const auto standardError = descriptors->find(2);
    server.standardError = standardError == descriptors->end() ? std::string() : standardError->second;
    server.isServing = std::any_of(descriptors->begin(), descriptors->end(), [&serviceSockets](const auto& descriptor) {
        return serviceSockets.count(descriptor.second) != 0;
    });
}

/// If the process has ended meanwhile, the data belong to no process or to another one.
bool HasEndedMeanwhile(const Proc& proc, const ServerProcess& server)
{
    const auto now = proc.Stat(server.stat.pid);
    return !now || !now->IsAlive() || now->startTicks != server.stat.startTicks;
}

} // namespace

std::vector<ServerProcess> FindServers(const Proc& proc)
{
    std::vector<ServerProcess> servers;
    std::set<pid_t> numbers;
    for (ProcessStat& stat : proc.Processes()) {
        if (!stat.IsAlive()) {
            continue;
        }
        std::vector<std::string> words =
            WithoutEmulator(proc.CommandLine(stat.pid).value_or(std::vector<std::string>()));
        if (IsServerProgram(words)) {
            ServerProcess server;
            numbers.insert(stat.pid);
            server.stat = std::move(stat);
            server.arguments = std::move(words);
            servers.push_back(std::move(server));
        }
    }
    if (servers.empty()) {
        return servers;
    }
    const std::set<std::string> serviceSockets = ServiceSockets(proc);
    std::vector<ServerProcess> found;
    for (ServerProcess& server : servers) {
        if (numbers.count(server.stat.parent) != 0) {
            continue; // a child has its server's command line until it executes its item
        }
        ReadSurroundings(proc, serviceSockets, server);
        if (!HasEndedMeanwhile(proc, server)) {
            found.push_back(std::move(server));
        }
    }
    return found;
}

std::optional<bool> IsOfOurMounts(const Proc& proc, pid_t pid)
{
    const auto ours = ReadLink(proc.Root() + "/self/ns/mnt");
    const auto its = proc.Link(pid, "ns/mnt");
    if (!ours || !its) {
        return std::nullopt;
    }
    struct stat here {};
    struct stat there {};
    return *ours == *its || (::stat(Common::SERVICE_DIRECTORY, &here) == 0 &&
                             ::stat((proc.Path(pid, "root") + Common::SERVICE_DIRECTORY).c_str(), &there) == 0 &&
                             here.st_dev == there.st_dev && here.st_ino == there.st_ino);
}

} // namespace Model
