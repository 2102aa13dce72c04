#ifndef TESTS_SYSTEM_SOAK_ORDERS_H
#define TESTS_SYSTEM_SOAK_ORDERS_H

#include <array>
#include <csignal>

/// The orders by which the soak's items end: an exit status, or the negative number of a signal.

/// What an item writes in place of an order when it starts without one.
constexpr const char NO_ORDER[] = "-";

/// The more likely ones are listed twice.
inline constexpr std::array SIGNALS{SIGKILL, SIGKILL, SIGTERM, SIGTERM, SIGSEGV, SIGABRT, SIGHUP,  SIGINT,
                                    SIGQUIT, SIGBUS,  SIGFPE,  SIGILL,  SIGPIPE, SIGALRM, SIGUSR2, SIGXCPU};
inline constexpr std::array RELAUNCHING{2, 6, 7, 8, 10, 11, 15, 31, 255};
inline constexpr std::array FINAL{0, 1, 3, 4, 5, 9, 12, 30, 32, 64, 127, 254};

#endif
