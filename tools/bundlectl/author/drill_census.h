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

/// A process that has come out of an item and no longer has a parent in the server.
struct Stray {
    pid_t pid = 0;
    std::uint64_t startTicks = 0;
    std::string name;
};

/// The processes of the namespaces that do not descend from the server, but for the first one, which is this one.
std::vector<Stray> FindStrays(pid_t server);
/// Those that were not there before.
std::vector<Stray> NewStrays(const std::vector<Stray>& before, const std::vector<Stray>& after);
/// Kills them, so that the next exercise begins without them.
void EndStrays(const std::vector<Stray>& strays);

/// The children of the server that have executed an item or a script.
std::set<pid_t> ChildrenOf(pid_t server);

/// How many descriptors a process has open.
std::size_t CountDescriptors(pid_t pid);

/// The sizes of the files in a bundle that belong to its items: all but the manifest, "bin" and "script".
std::map<std::string, std::uintmax_t> DataFiles(const std::string& bundle);
/// Those that had a content before and are now empty or gone.
std::vector<std::string> DamagedFiles(const std::map<std::string, std::uintmax_t>& before,
                                      const std::map<std::string, std::uintmax_t>& after);

} // namespace Trials

#endif
