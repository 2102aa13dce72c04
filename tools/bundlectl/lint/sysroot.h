#ifndef BUNDLECTL_LINT_SYSROOT_H
#define BUNDLECTL_LINT_SYSROOT_H

#include "lint/elf_facts.h"

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Lint {

/// A kind of machine, by the names that distributions and the kernel have for it.
struct Machine {
    const char* name;
    const char* alias;
    int number; ///< EM_...
    int bits;
    const char* folder; ///< of its libraries
};

/// Null when there is none of that name. Empty: the machine that this program runs on.
const Machine* FindMachine(const std::string& name);
/// The names, for people.
std::string MachineNames();

/// The file system that the bundle is to run in, and its machine.
class Sysroot {
public:
    /// @param root empty: unknown, unless the machine is this one, whose own file system it then is
    Sysroot(const Machine& machine, const std::string& root);

    const Machine& Target() const { return m_machine; }
    /// Whether its files can be looked at.
    bool IsKnown() const { return m_isKnown; }
    /// Whether there is such a file, links being followed inside.
    bool Has(const std::string& path) const;
    /// Whether a library of that name is in one of its directories, or in those that are given.
    bool HasLibrary(const std::string& name, const std::vector<std::string>& directories) const;
    /// The latest version that its C library offers; empty when that is unknown.
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
