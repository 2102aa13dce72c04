#ifndef BUNDLECTL_AUTHOR_DRILL_CENSUS_H
#define BUNDLECTL_AUTHOR_DRILL_CENSUS_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace Trials {

/// A process that an item has started and that is no longer a descendant of the server.
struct Stray {
    pid_t pid = 0;
    std::uint64_t startTicks = 0;
    std::string name;
};

/// The processes of the namespaces that do not descend from the server, without the first one, which is this process.
std::vector<Stray> FindStrays(pid_t server);
/// The processes that did not exist before.
std::vector<Stray> NewStrays(const std::vector<Stray>& before, const std::vector<Stray>& after);
/// Kills these processes, so that the next exercise begins without them.
void EndStrays(const std::vector<Stray>& strays);

/// The children of the server that have executed an item or a script.
std::set<pid_t> ChildrenOf(pid_t server);

/// Whether a process runs. One that is dead and not yet reaped does not.
bool IsAlive(pid_t pid);

/// The number of a process's open descriptors.
std::size_t CountDescriptors(pid_t pid);

/// The sizes of the items' own files in a bundle: all files except the manifest, "bin" and "script".
std::map<std::string, std::uintmax_t> DataFiles(const std::string& bundle);
/// The files that were not empty before and are now empty or gone.
std::vector<std::string> DamagedFiles(const std::map<std::string, std::uintmax_t>& before,
                                      const std::map<std::string, std::uintmax_t>& after);

} // namespace Trials

#endif
