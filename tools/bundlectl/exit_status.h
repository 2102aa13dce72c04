#ifndef BUNDLECTL_EXIT_STATUS_H
#define BUNDLECTL_EXIT_STATUS_H

/// The exit statuses of bundlectl, which are the same for all verbs. Scripts depend on the numbers.
enum ExitStatus : int {
    EXIT_DONE = 0,
    EXIT_FAILED = 1,
    EXIT_USAGE = 2,
    EXIT_UNKNOWN_BUNDLE = 3,
    EXIT_UNREACHABLE = 4,
    EXIT_TIMED_OUT = 5,
};

struct ExitStatusMeaning {
    ExitStatus status;
    const char* meaning;
};

/// The list at the end of each help text. A test compares the manual page with it.
constexpr ExitStatusMeaning EXIT_STATUSES[] = {
    {EXIT_DONE, "good"},
    {EXIT_FAILED, "failed, not healthy, a finding or a change"},
    {EXIT_USAGE, "wrong use"},
    {EXIT_UNKNOWN_BUNDLE, "no such bundle"},
    {EXIT_UNREACHABLE, "server or log cannot be reached"},
    {EXIT_TIMED_OUT, "timed out"},
};

#endif
