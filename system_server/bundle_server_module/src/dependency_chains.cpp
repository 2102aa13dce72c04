#include "dependency_chains.h"

#include <algorithm>
#include <utility>

namespace SystemServer {

/// A bundle on the way down.
struct DependencyChains::Link {
    std::string name;
    Dependencies dependencies;
    std::size_t next = 0;    ///< the dependency to look at
    std::size_t longest = 0; ///< below this bundle, as far as is known
};

DependencyChains::DependencyChains(Find find) : m_find(std::move(find)) {}

DependencyChains::Link DependencyChains::LinkOf(const std::string& name) const
{
    return {name, m_find(name)};
}

std::size_t DependencyChains::LengthFrom(const std::string& name)
{
    std::vector<Link> chain;
    if (m_lengths.try_emplace(name, 0).second) {
        chain.push_back(LinkOf(name));
    }
    while (!chain.empty()) {
        Link& link = chain.back();
        if (link.dependencies && link.next < link.dependencies->size()) {
            const std::string& required = (*link.dependencies)[link.next++];
            const auto [known, isNew] = m_lengths.try_emplace(required, 0);
            if (isNew) {
                chain.push_back(LinkOf(required));
            } else {
                link.longest = std::max(link.longest, known->second);
            }
            continue;
        }
        const std::size_t length = link.dependencies ? link.longest + 1 : 0;
        m_lengths[link.name] = length;
        chain.pop_back();
        if (!chain.empty()) {
            chain.back().longest = std::max(chain.back().longest, length);
        }
    }
    return m_lengths[name];
}

} // namespace SystemServer
