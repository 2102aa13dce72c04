#ifndef TESTS_BUNDLECTL_AUTHOR_KILLED_PROGRAM_H
#define TESTS_BUNDLECTL_AUTHOR_KILLED_PROGRAM_H

#include <functional>
#include <string>
#include <vector>

/// Runs a program and kills it when it enters or leaves one of the system calls that change files. False when the
/// program has ended before.
/// @param arguments the program's path first
/// @param stops the number of entries and exits before the kill
/// @param before called while the program stands still, just before it is killed
bool RunKilledAt(
    const std::vector<std::string>& arguments, int stops, const std::function<void()>& before = [] {});

#endif
