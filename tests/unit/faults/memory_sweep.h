#ifndef TESTS_UNIT_FAULTS_MEMORY_SWEEP_H
#define TESTS_UNIT_FAULTS_MEMORY_SWEEP_H

#include "support/fault_allocation.h"

#include <gtest/gtest.h>

#include <exception>
#include <string>

/// Repeats an operation. In the first round its first allocation fails, in the second round its second, and so on until
/// no allocation fails. In a first sweep one allocation fails in each round, in a second sweep all later ones too.
///
///     SweepMemory([&] { Prepare(); }, [&] { operation(); }, [&] { EXPECT_TRUE(nothing is broken); });
///
/// Prepare runs before each round and check after it. Allocations fail only in the operation, which may throw: see
/// RoundFailed.
class MemorySweep {
public:
    /// @param step a round's failing allocation comes this many after that of the round before
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
