#ifndef BUNDLECTL_MODEL_REASONS_H
#define BUNDLECTL_MODEL_REASONS_H

#include "reason.h"
#include "status.h"

#include <string>
#include <vector>

namespace Model {

/// An end of one of its items.
struct ToldEnd {
    std::string item;
    ItemEnd end;
    bool isServersStop = false; ///< a SIGTERM in the last moments of a server: both were stopped
};

/// Why the bundle does not run completely, the most important reason first. For a healthy bundle: since when it runs.
/// @param checkFiles also checks the items' files and runs the dynamic linker, which takes some milliseconds each
std::vector<Reason> ReasonsOf(const Snapshot& snapshot, const BundleStatus& bundle, bool checkFiles);

/// The last ends of its items, in all servers of the log, the latest first.
std::vector<ToldEnd> LastEnds(const Snapshot& snapshot, const BundleStatus& bundle, std::size_t count);

} // namespace Model

#endif
