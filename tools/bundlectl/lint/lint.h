#ifndef BUNDLECTL_LINT_LINT_H
#define BUNDLECTL_LINT_LINT_H

#include "lint/finding.h"

#include <string>
#include <vector>

/// Predicts what the server makes of bundles, from their files alone. Nothing is run, loaded or written.
namespace Lint {

struct Options {
    std::string machine; ///< its name; empty: the one that this program runs on
    std::string sysroot; ///< the root of the file system that the bundles are to run in
    std::string
        collection; ///< whose bundles may be required; empty: what is required is looked up only in a collection
};

struct Result {
    std::vector<Finding> findings; ///< by path, in the order of the arguments; then by file and line
    std::size_t bundles = 0;       ///< looked at
    std::string trouble;           ///< why nothing was looked at; empty when it was

    bool HasErrors() const;
};

/// @param paths of bundles and collections. A directory without a manifest that has directories with one is a
/// collection.
Result LintPaths(const std::vector<std::string>& paths, const Options& options);

/// All there are, in the order of the manual.
std::vector<const Rule*> AllRules();
/// Null when there is none of that id.
const Rule* FindRule(const std::string& id);

} // namespace Lint

#endif
