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

/// The properties of a program or a library, from its ELF tables.
struct ElfFacts {
    int machine = 0;
    int bits = 0;
    bool isShared = false; ///< the dynamic linker can load it; this can be true of a program, too
    std::string interpreter;
    std::vector<std::string> needed;   ///< libraries
    std::vector<std::string> runPaths; ///< where it searches for them; "$ORIGIN" is not replaced
    std::set<std::string> exported;    ///< functions
    std::set<std::string> imported;    ///< functions
    std::optional<Version> glibcNeeded;
    std::optional<Version> glibcOffered; ///< of a C library
};

/// Reads a file's tables without running or loading it. Empty when the file is not an ELF file or is broken.
std::optional<ElfFacts> ReadElfFacts(const std::string& path);

} // namespace Lint

#endif
