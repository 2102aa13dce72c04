#include "drill_census.h"

#include "model/proc.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <system_error>

namespace Trials {

namespace fs = std::filesystem;

std::vector<Stray> FindStrays(pid_t server)
{
    const std::vector<Model::ProcessStat> all = Model::Proc().Processes();
    std::map<pid_t, pid_t> parents;
    for (const Model::ProcessStat& process : all) {
        parents[process.pid] = process.parent;
    }
    std::vector<Stray> strays;
    for (const Model::ProcessStat& process : all) {
        pid_t ancestor = process.pid;
        while (ancestor > 1 && ancestor != server) {
            const auto parent = parents.find(ancestor);
            ancestor = parent == parents.end() ? 0 : parent->second;
        }
        if (ancestor != server && process.pid != ::getpid() && process.IsAlive()) {
            strays.push_back({process.pid, process.startTicks, process.name});
        }
    }
    return strays;
}

std::vector<Stray> NewStrays(const std::vector<Stray>& before, const std::vector<Stray>& after)
{
    std::vector<Stray> added;
    std::copy_if(after.begin(), after.end(), std::back_inserter(added), [&before](const Stray& stray) {
        return std::none_of(before.begin(), before.end(), [&stray](const Stray& old) {
            return old.pid == stray.pid && old.startTicks == stray.startTicks;
        });
    });
    return added;
}

void EndStrays(const std::vector<Stray>& strays)
{
    for (const Stray& stray : strays) {
        const auto now = Model::Proc().Stat(stray.pid);
        if (now && now->startTicks == stray.startTicks) {
            ::kill(stray.pid, SIGKILL);
        }
    }
}

std::set<pid_t> ChildrenOf(pid_t server)
{
    const Model::Proc proc;
    const auto words = proc.CommandLine(server);
    std::set<pid_t> children;
    for (const Model::ProcessStat& process : proc.Processes()) {
        if (process.parent == server && process.IsAlive() && proc.CommandLine(process.pid) != words) {
            children.insert(process.pid);
        }
    }
    return children;
}

bool IsAlive(pid_t pid)
{
    const auto stat = Model::Proc().Stat(pid);
    return stat && stat->IsAlive();
}

std::size_t CountDescriptors(pid_t pid)
{
    const auto descriptors = Model::Proc().Descriptors(pid);
    return descriptors ? descriptors->size() : 0;
}

std::map<std::string, std::uintmax_t> DataFiles(const std::string& bundle)
{
    std::map<std::string, std::uintmax_t> files;
    std::error_code error;
    fs::recursive_directory_iterator entry(bundle, error);
    for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (entry.depth() == 0 && (name == "bin" || name == "script" || name == "BundleManifest.ini")) {
            entry.disable_recursion_pending();
            continue;
        }
        std::error_code gone;
        if (entry->is_regular_file(gone)) {
            const std::uintmax_t size = entry->file_size(gone);
            files[entry->path().lexically_relative(bundle).string()] = gone ? 0 : size;
        }
    }
    return files;
}

std::vector<std::string> DamagedFiles(const std::map<std::string, std::uintmax_t>& before,
                                      const std::map<std::string, std::uintmax_t>& after)
{
    std::vector<std::string> damaged;
    for (const auto& [name, size] : before) {
        const auto now = after.find(name);
        if (size > 0 && (now == after.end() || now->second == 0)) {
            damaged.push_back(name);
        }
    }
    return damaged;
}

} // namespace Trials
