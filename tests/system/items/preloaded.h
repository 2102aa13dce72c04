#ifndef TESTS_SYSTEM_ITEMS_PRELOADED_H
#define TESTS_SYSTEM_ITEMS_PRELOADED_H

#include <cstdlib>

/// Keeps the daemon's children from loading this library. They are not under test. They may also have another
/// architecture, for which the loader would print an error.
__attribute__((constructor)) static void KeepFromChildren()
{
    ::unsetenv("LD_PRELOAD");
}

#endif
