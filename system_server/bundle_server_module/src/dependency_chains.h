#ifndef DEPENDENCY_CHAINS_H
#define DEPENDENCY_CHAINS_H

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace SystemServer {

/// Measures the chains of bundles that require each other: a bundle, one that it requires, one that this one requires,
/// and so on. Does not recurse. Results are kept, so a walk over all bundles visits each bundle once. After a change of
/// a bundle, make a new object. Used on one thread.
class DependencyChains {
public:
    using Dependencies = std::shared_ptr<const std::vector<std::string>>;
    /// The names that a bundle requires; null when no bundle has the name.
    using Find = std::function<Dependencies(const std::string& name)>;

    /// @param find called in LengthFrom, once for each name
    explicit DependencyChains(Find find);

    /// The number of bundles in the longest chain that begins with this one. A chain ends at a missing bundle, and
    /// where it comes back to itself.
    std::size_t LengthFrom(const std::string& name);

private:
    struct Link;

    const Find m_find;
    std::unordered_map<std::string, std::size_t> m_lengths; // 0: not known yet, or missing
};

} // namespace SystemServer

#endif
