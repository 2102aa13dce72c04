#ifndef TESTS_SUPPORT_FAULT_PLAN_H
#define TESTS_SUPPORT_FAULT_PLAN_H

#include "support/call.h"

#include <atomic>
#include <functional>

using CallAction = std::function<void(int)>;

/// The plan of one call. It is read between fork and exec too, so it has no lock.
struct Plan {
    std::atomic<int> calls{0};
    std::atomic<int> value{0};
    std::atomic<int> after{0};
    std::atomic<int> count{0};
    std::atomic<const CallAction*> action{nullptr};
    std::atomic<int> actionsUnderWay{0};
};

Plan& PlanOf(Call call);

/// Mutexes fail only on the thread that called this last.
void LockFailsOnThisThread();

/// Called by the functions that replace a call. Counts the call and runs the action that precedes it; the action gets
/// the argument. True when the call must fail. Takes no lock, because it runs between fork and exec too.
bool MustFail(Call call, int argument);

/// As MustFail, and sets errno when the call must fail.
bool FailsWithErrno(Call call, int argument);

/// As MustFail for LOCK_MUTEX, which fails only on the thread that has made the Fault and is counted only then.
bool LockMustFail();

/// The value of the call's Fault.
int FaultValue(Call call);

#endif
