#ifndef REMOVAL_TRIES_H
#define REMOVAL_TRIES_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace SystemServer {

/// The removals that are being raised, and those that will be raised again because their handler failed. These are
/// raised at each scan at first, then about once a minute. Time is counted in scans. Used by one thread at a time.
class RemovalTries {
public:
    /// How often in a row a removal is raised at each scan.
    static constexpr int FREQUENT_TRIES = 10;
    static constexpr std::uint64_t SCANS_BETWEEN_RARE_TRIES = 60;

    /// Called before each raising of a removal: the first one and each repetition.
    /// @throws std::bad_alloc
    void Begin(const std::string& name) { m_removals.try_emplace(name); }

    /// Called when the handler asks for another try. Ignored when no removal of that name is being raised.
    void AskForAnother(std::string_view name);

    /// Called when the handler has returned.
    /// @return how often it has asked for another try in a row, 0 when the removal is over
    int End(std::string_view name, std::uint64_t scan);

    /// Called when the removed item is back.
    void Forget(std::string_view name);

    bool IsDue(std::string_view name, std::uint64_t scan) const;

    template <class Visit> void ForEachDue(std::uint64_t scan, const Visit& visit) const
    {
        for (const auto& [name, removal] : m_removals) {
            if (removal.nextScan <= scan) {
                visit(name);
            }
        }
    }

private:
    struct Removal {
        bool isToBeRetried = false;
        int tries = 0;
        std::uint64_t nextScan = 0;
    };

    std::map<std::string, Removal, std::less<>> m_removals; // by the item's name
};

} // namespace SystemServer

#endif
