#ifndef BUNDLECTL_MODEL_REASONS_H
#define BUNDLECTL_MODEL_REASONS_H

#include "status.h"

#include <string>
#include <vector>

namespace Model {

/// Why a bundle is as it is.
struct Reason {
    const char* kind = "";             ///< a word for programs: "required-missing"
    std::string text;                  ///< sentences for people
    std::string brief;                 ///< a few words of it, for a line of a table
    std::string remedy;                ///< what mends it: a command or an advice; empty: nothing is to be mended
    bool isRecomputed = false;         ///< the log does not tell it: it was found out from the files as they are now
    std::vector<std::string> evidence; ///< the records that prove it
};

/// An end of one of its items.
struct ToldEnd {
    std::string item;
    ItemEnd end;
    bool isServersStop = false; ///< a SIGTERM in the last moments of a server: it was stopped with it
};

/// Why the bundle does not run, or not all of it, the most important first. Of a healthy bundle: since when it runs.
/// @param checkFiles looks at the items' files too, and asks the dynamic linker, which takes some milliseconds each
std::vector<Reason> ReasonsOf(const Snapshot& snapshot, const BundleStatus& bundle, bool checkFiles);

/// The last ends of its items, in all servers of the log, the latest first.
std::vector<ToldEnd> LastEnds(const Snapshot& snapshot, const BundleStatus& bundle, std::size_t count);

/// "SIGSEGV", "signal 44", "status 3".
std::string NameOfEnd(const ItemEnd& end);
std::string NameOfSignal(int signal);

} // namespace Model

#endif
