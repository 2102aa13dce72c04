#ifndef TESTS_SYSTEM_ITEMS_PRELOADED_H
#define TESTS_SYSTEM_ITEMS_PRELOADED_H

#include <cstdlib>

/// What the daemon starts is not to be loaded with this library: it is not what is tested, and may be a program of
/// another architecture, whose loader would complain on standard error.
__attribute__((constructor)) static void KeepFromChildren()
{
    ::unsetenv("LD_PRELOAD");
}

#endif
