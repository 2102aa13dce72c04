#ifndef BUNDLECTL_LINT_ELF_FACTS_H
#define BUNDLECTL_LINT_ELF_FACTS_H

#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Lint {

/// Major and minor.
using Version = std::pair<int, int>;

/// What a program or a library says of itself.
struct ElfFacts {
    int machine = 0;
    int bits = 0;
    bool isShared = false; ///< it can be loaded by the dynamic linker; a program may be, too
    std::string interpreter;
    std::vector<std::string> needed;   ///< libraries
    std::vector<std::string> runPaths; ///< where it looks for them, "$ORIGIN" as it stands
    std::set<std::string> exported;    ///< functions
    std::set<std::string> imported;    ///< functions
    std::optional<Version> glibcNeeded;
    std::optional<Version> glibcOffered; ///< of a C library
};

/// Reads a file's tables; runs and loads nothing of it. Empty when it is no ELF file, or a broken one.
std::optional<ElfFacts> ReadElfFacts(const std::string& path);

} // namespace Lint

#endif
