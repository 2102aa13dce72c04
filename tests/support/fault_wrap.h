#ifndef TESTS_SUPPORT_FAULT_WRAP_H
#define TESTS_SUPPORT_FAULT_WRAP_H

#include "support/fault_plan.h"

// The linker turns a call of a wrapped name into a call of "__wrap_" and that name. The replaced function is called by
// "__real_" and that name.
#define WRAPPED(name) __asm__("__wrap_" name)
#define REAL(name) __asm__("__real_" name)

// NOLINTBEGIN(bugprone-macro-parentheses): types and lists of arguments
// A call of the system that sets errno and returns FAILURE when it fails. ARGUMENT is passed to actions.
#define FAILING_CALL(call, name, Result, failure, parameters, arguments, argument)                                     \
    Result Real##call parameters REAL(name);                                                                           \
    Result Wrapped##call parameters WRAPPED(name);                                                                     \
    Result Wrapped##call parameters                                                                                    \
    {                                                                                                                  \
        return FailsWithErrno(Call::call, argument) ? failure : Real##call arguments;                                  \
    }
// The same for a call with two names. The second is the one with file sizes of 64 bits.
#define FAILING_CALLS(call, name, Result, failure, parameters, arguments, argument)                                    \
    FAILING_CALL(call, name, Result, failure, parameters, arguments, argument)                                         \
    Result Real64##call parameters REAL(name "64");                                                                    \
    Result Wrapped64##call parameters WRAPPED(name "64");                                                              \
    Result Wrapped64##call parameters                                                                                  \
    {                                                                                                                  \
        return FailsWithErrno(Call::call, argument) ? failure : Real64##call arguments;                                \
    }
// NOLINTEND(bugprone-macro-parentheses)

// On a 32-bit machine, a call that takes a time of 64 bits has only the last name.
#ifdef TEST_TIME64_NAMES
#define TIMED(name, timed) timed
#define FAILING_TIMED_CALLS(call, name, timed, Result, failure, parameters, arguments, argument)                       \
    FAILING_CALL(call, timed, Result, failure, parameters, arguments, argument)
#else
#define TIMED(name, timed) name
#define FAILING_TIMED_CALLS(call, name, timed, Result, failure, parameters, arguments, argument)                       \
    FAILING_CALLS(call, name, Result, failure, parameters, arguments, argument)
#endif

#endif
