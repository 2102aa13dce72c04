#ifndef TESTS_SYSTEM_ITEMS_PRELOADED_H
#define TESTS_SYSTEM_ITEMS_PRELOADED_H

#include <cstdlib>

/// The daemon's children must not load this library. They are not under test, and their architecture may be another
/// one, so that the loader would complain on standard error.
__attribute__((constructor)) static void KeepFromChildren()
{
    ::unsetenv("LD_PRELOAD");
}

#endif
