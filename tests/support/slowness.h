#ifndef TESTS_SUPPORT_SLOWNESS_H
#define TESTS_SUPPORT_SLOWNESS_H

/// How many times slower than usual the programs of this build run, emulated ones say. Times within which something
/// must happen are stretched by it.
constexpr int SLOWNESS = TEST_SLOWNESS;

#endif
