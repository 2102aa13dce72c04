#ifndef BUNDLECTL_AUTHOR_PLAN_H
#define BUNDLECTL_AUTHOR_PLAN_H

#include <string>
#include <vector>

/// Predicts what a server will do with a collection, with the server's own manager. Runs and writes nothing.
namespace Plans {

/// One step of the server.
struct Step {
    enum Kind {
        LOADS,    ///< a bundle; its install script runs before
        REFUSES,  ///< a directory
        RESOLVES, ///< a bundle
        STARTS,   ///< a bundle
        STOPS,    ///< a bundle
        UPDATES,  ///< takes a bundle's new manifest in
        UNLOADS,  ///< a bundle
        ENDS,     ///< the server itself, with status 70
    };

    Kind kind = LOADS;
    std::string bundle;  ///< empty: not known
    std::string path;    ///< of its directory
    std::string message; ///< the server's own words for a failure; empty: no failure
    std::string script;  ///< that runs with the step; empty: none
    int launches = 0;    ///< STARTS: items that are launched as processes, a second each
};

/// A change of a collection while its server runs.
struct Change {
    enum Kind { NONE, ADD, DELETE, UPDATE };

    Kind kind = NONE;
    std::string subject; ///< the new directory, or the bundle's name
};

/// A bundle that a change affects although it is not changed itself.
struct Affected {
    std::string bundle;
    std::string text;
};

struct Plan {
    std::string trouble; ///< why there is no plan
    bool isUnknownBundle = false;
    std::vector<Step> steps;
    std::vector<Affected> affected;
    long leastSeconds = 0;
    /// The records that the server will write about loading, refusals and states, in order; not escaped.
    std::vector<std::string> records;
};

/// @param collection as in the server's configuration
Plan MakePlan(const std::string& collection, const Change& change);

} // namespace Plans

#endif
