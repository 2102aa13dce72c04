#ifndef TESTS_SUPPORT_RANDOM_H
#define TESTS_SUPPORT_RANDOM_H

#include <cstddef>
#include <cstdlib>
#include <optional>
#include <random>
#include <string>

/// Random numbers, different in each run. A failing test shows the seed. With the seed in BUNDLE_SERVER_TEST_SEED the
/// numbers are the same again, but not the order in which processes run.
class Random {
public:
    /// @param seed of a test that shall do the same in each run
    explicit Random(std::optional<unsigned> seed = std::nullopt) : m_seed(TakeSeed(seed)) {}

    unsigned Seed() const { return m_seed; }

    /// From 0 to one less than the limit.
    int Below(int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(m_engine); }
    bool InPercent(int chance) { return Below(100) < chance; }
    template <class List> auto& OneOf(List& list)
    {
        return list[static_cast<std::size_t>(Below(static_cast<int>(std::size(list))))];
    }
    std::mt19937& Engine() { return m_engine; }

private:
    static unsigned TakeSeed(std::optional<unsigned> standard)
    {
        const char* const seed = std::getenv("BUNDLE_SERVER_TEST_SEED");
        return seed != nullptr ? static_cast<unsigned>(std::stoul(seed))
               : standard      ? *standard
                               : std::random_device()();
    }

    const unsigned m_seed;
    std::mt19937 m_engine{m_seed};
};

#endif
