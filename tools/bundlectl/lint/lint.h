#ifndef BUNDLECTL_LINT_LINT_H
#define BUNDLECTL_LINT_LINT_H

#include "lint/finding.h"

#include <string>
#include <vector>

/// Predicts from bundles' files how the server will handle them. Runs, loads and writes nothing.
namespace Lint {

struct Options {
    std::string machine; ///< its name; empty: the machine on which this program runs
    std::string sysroot; ///< the root of the file system in which the bundles will run
    std::string
        collection; ///< whose bundles may be required; empty: requirements are checked only within a given collection
};

struct Result {
    std::vector<Finding> findings; ///< by path, in the order of the arguments; then by file and line
    std::size_t bundles = 0;       ///< looked at
    std::string trouble;           ///< why nothing was checked; empty: no trouble

    bool HasErrors() const;
};

/// @param paths of bundles and collections. A directory without a manifest that has directories with one is a
/// collection.
Result LintPaths(const std::vector<std::string>& paths, const Options& options);

/// All rules, in the order of the manual.
std::vector<const Rule*> AllRules();
/// Null when no rule has this id.
const Rule* FindRule(const std::string& id);

} // namespace Lint

#endif
