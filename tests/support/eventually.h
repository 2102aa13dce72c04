#ifndef TESTS_SUPPORT_EVENTUALLY_H
#define TESTS_SUPPORT_EVENTUALLY_H

#include "support/slowness.h"

#include <chrono>
#include <ctime>

/// Checks the condition until it holds. False when the time is over first. Slow programs get more time: see slowness.h.
template <typename Condition> bool Eventually(std::chrono::milliseconds timeout, Condition condition)
{
    const auto end = std::chrono::steady_clock::now() + timeout * SLOWNESS;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        const timespec pause{0, 2'000'000};
        ::nanosleep(&pause, nullptr);
    }
    return true;
}

#endif
