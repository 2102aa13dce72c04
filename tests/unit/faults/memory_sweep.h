#ifndef TESTS_UNIT_FAULTS_MEMORY_SWEEP_H
#define TESTS_UNIT_FAULTS_MEMORY_SWEEP_H

#include "support/fault_allocation.h"

#include <gtest/gtest.h>

#include <exception>
#include <string>

/// Repeats an operation: first its first allocation fails, then its second, and so on until no failure is reached. A
/// first sweep lets a single allocation fail, a second one also all that follow.
///
///     SweepMemory([&] { Prepare(); }, [&] { operation(); }, [&] { EXPECT_TRUE(nothing is broken); });
///
/// @param prepare runs before each round and check after it, both with all memory. Only the operation runs short of it.
/// The operation may throw; check learns of it by RoundFailed.
class MemorySweep {
public:
    /// @param step by how many allocations a round goes further than the one before
    explicit MemorySweep(long step = 1) : m_step(step) {}

    template <class Prepare, class Operation, class Check>
    void Run(AllocationFault::Of of, const Prepare& prepare, const Operation& operation, const Check& check)
    {
        for (const auto lasting : {AllocationFault::Lasting::ONCE, AllocationFault::Lasting::FOR_GOOD}) {
            bool hasStruck = true;
            for (m_round = 0; hasStruck && !::testing::Test::HasFailure(); m_round += m_step) {
                SCOPED_TRACE((lasting == AllocationFault::Lasting::ONCE ? "failing once after " : "failing after ") +
                             std::to_string(m_round) + " allocations");
                prepare();
                m_failed = false;
                m_failsOnce = lasting == AllocationFault::Lasting::ONCE;
                {
                    const AllocationFault fault(m_round, lasting, of);
                    try {
                        operation();
                    } catch (const std::exception&) {
                        m_failed = true;
                    }
                    hasStruck = fault.HasStruck();
                }
                check();
            }
            EXPECT_FALSE(m_failed) << "it fails with all the memory there is";
            EXPECT_GT(m_round, 1) << "it needs no memory: nothing was tested";
        }
    }

    /// Whether the operation has thrown in this round.
    bool RoundFailed() const { return m_failed; }

    /// Whether a single allocation fails in this round.
    bool FailsOnce() const { return m_failsOnce; }

private:
    const long m_step;
    long m_round = 0;
    bool m_failed = false;
    bool m_failsOnce = false;
};

#endif
