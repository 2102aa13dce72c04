#ifndef DEPENDENCY_CHAINS_H
#define DEPENDENCY_CHAINS_H

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace SystemServer {

/// How long the chains of bundles are that require each other: a bundle, one that it requires, one that this one
/// requires, and so on. Needs no stack for their length. What has been found is kept, so the walk over all bundles
/// looks at each of them once; after a change of a bundle a new object is needed. One thread's.
class DependencyChains {
public:
    using Dependencies = std::shared_ptr<const std::vector<std::string>>;
    /// The names that the bundle of a name requires; null when there is no such bundle.
    using Find = std::function<Dependencies(const std::string& name)>;

    /// @param find called in LengthFrom, once for each name
    explicit DependencyChains(Find find);

    /// The bundles in the longest chain that begins with this one. A chain ends at a bundle that is not there, and
    /// where it comes back to itself.
    std::size_t LengthFrom(const std::string& name);

private:
    struct Link;

    const Find m_find;
    std::unordered_map<std::string, std::size_t> m_lengths; // 0: not known yet, or not there
};

} // namespace SystemServer

#endif
