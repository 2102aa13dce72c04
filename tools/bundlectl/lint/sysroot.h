#ifndef BUNDLECTL_LINT_SYSROOT_H
#define BUNDLECTL_LINT_SYSROOT_H

#include "lint/elf_facts.h"

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Lint {

/// A kind of machine, with the names that distributions and the kernel use.
struct Machine {
    const char* name;
    const char* alias;
    int number; ///< EM_...
    int bits;
    const char* folder; ///< of its libraries
};

/// Null when no machine has this name. An empty name means the machine on which this program runs.
const Machine* FindMachine(const std::string& name);
/// The names, for people.
std::string MachineNames();

/// The file system in which the bundle will run, and its machine.
class Sysroot {
public:
    /// @param root empty: this machine's own file system, if the machine is this one; otherwise unknown
    Sysroot(const Machine& machine, const std::string& root);

    const Machine& Target() const { return m_machine; }
    /// Whether its files can be examined.
    bool IsKnown() const { return m_isKnown; }
    /// Whether the file exists. Follows links inside the root.
    bool Has(const std::string& path) const;
    /// Whether it is a file that some user may execute.
    bool HasExecutable(const std::string& path) const;
    /// Whether a library of that name is in one of its own directories or in the given ones.
    bool HasLibrary(const std::string& name, const std::vector<std::string>& directories) const;
    /// The latest version that its C library offers; empty: unknown.
    std::optional<Version> GlibcVersion() const { return m_glibc; }

private:
    std::string Resolve(const std::string& path) const;
    void ReadLinkerConfiguration(const std::string& file, int depth);

    const Machine& m_machine;
    std::string m_root; // without a "/" at the end
    bool m_isKnown;
    std::vector<std::string> m_directories;
    std::optional<Version> m_glibc;
};

} // namespace Lint

#endif
