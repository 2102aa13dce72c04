#ifndef BUNDLECTL_EXIT_STATUS_H
#define BUNDLECTL_EXIT_STATUS_H

/// What bundlectl tells the shell.
enum ExitStatus : int {
    EXIT_DONE = 0,
    EXIT_FAILED = 1,
    EXIT_WRONG_USE = 2,
    EXIT_UNKNOWN_BUNDLE = 3,
    EXIT_UNREACHABLE = 4,
    EXIT_TIMED_OUT = 5,
};

#endif
