#ifndef TESTS_FUZZ_FUZZ_TARGET_H
#define TESTS_FUZZ_FUZZ_TARGET_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>

/// Every fuzz target defines this. It gets one input and ends the process if the input shows a fault. The fuzzer
/// generates inputs (script/fuzz); replay.cpp reads them from files. Always returns 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// Optional: what a target does first, before any thread starts.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

/// Ends the process when a condition that must hold for every input does not. The fuzzer then keeps the input.
inline void Require(bool holds, const char* what)
{
    if (!holds) {
        std::cerr << "finding: " << what << std::endl;
        std::abort();
    }
}

#endif
