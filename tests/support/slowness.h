#ifndef TESTS_SUPPORT_SLOWNESS_H
#define TESTS_SUPPORT_SLOWNESS_H

/// How many times slower than usual the programs of this build run, for example under an emulator. Upper bounds of time
/// are multiplied by it.
constexpr int SLOWNESS = TEST_SLOWNESS;

#endif
