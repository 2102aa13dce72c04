#include "dependency_chains.h"

#include <algorithm>
#include <utility>

namespace SystemServer {

/// A bundle on the way down.
struct DependencyChains::Link {
    std::size_t& length; ///< where it is kept
    Dependencies dependencies;
    std::size_t next = 0;    ///< the dependency to look at
    std::size_t longest = 0; ///< below this bundle, as far as is known
};

DependencyChains::DependencyChains(Find find) : m_find(std::move(find)) {}

std::size_t DependencyChains::LengthFrom(const std::string& name)
{
    std::vector<Link> chain;
    const auto [first, isFirstNew] = m_lengths.try_emplace(name, 0);
    const std::size_t& found = first->second; // stays valid, unlike the iterator
    if (isFirstNew) {
        chain.push_back({first->second, m_find(name)});
    }
    while (!chain.empty()) {
        Link& link = chain.back();
        if (link.dependencies && link.next < link.dependencies->size()) {
            const std::string& required = (*link.dependencies)[link.next++];
            const auto [known, isNew] = m_lengths.try_emplace(required, 0);
            if (isNew) {
                chain.push_back({known->second, m_find(required)});
            } else {
                link.longest = std::max(link.longest, known->second);
            }
            continue;
        }
        const std::size_t length = link.dependencies ? link.longest + 1 : 0;
        link.length = length;
        chain.pop_back();
        if (!chain.empty()) {
            chain.back().longest = std::max(chain.back().longest, length);
        }
    }
    return found;
}

} // namespace SystemServer
