#ifndef TESTS_FUZZ_FUZZ_TARGET_H
#define TESTS_FUZZ_FUZZ_TARGET_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>

/// What every fuzz target is: it gets one input, and ends the process where the input shows a fault. The fuzzer makes
/// inputs up (script/fuzz); replay.cpp takes them from files. Always returns 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// What a target does before all else, and before any thread is started; few have it.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

/// Ends the process when something does not hold that holds for every input: the fuzzer then keeps the input.
inline void Require(bool holds, const char* what)
{
    if (!holds) {
        std::cerr << "finding: " << what << std::endl;
        std::abort();
    }
}

#endif
