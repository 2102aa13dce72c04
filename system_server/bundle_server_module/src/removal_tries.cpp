#include "removal_tries.h"

#include <utility>

namespace SystemServer {

void RemovalTries::AskForAnother(std::string_view name)
{
    const auto position = m_removals.find(name);
    if (position != m_removals.end()) {
        position->second.isToBeRetried = true;
    }
}

int RemovalTries::End(std::string_view name, std::uint64_t scan)
{
    const auto position = m_removals.find(name);
    if (position == m_removals.end()) {
        return 0;
    }
    Removal& removal = position->second;
    if (!std::exchange(removal.isToBeRetried, false)) {
        m_removals.erase(position);
        return 0;
    }
    ++removal.tries;
    removal.nextScan = scan + (removal.tries < FREQUENT_TRIES ? 1 : SCANS_BETWEEN_RARE_TRIES);
    return removal.tries;
}

void RemovalTries::Forget(std::string_view name)
{
    const auto position = m_removals.find(name);
    if (position != m_removals.end()) {
        m_removals.erase(position);
    }
}

bool RemovalTries::IsDue(std::string_view name, std::uint64_t scan) const
{
    const auto position = m_removals.find(name);
    return position != m_removals.end() && position->second.nextScan <= scan;
}

} // namespace SystemServer
