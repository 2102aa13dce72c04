#ifndef BUNDLECTL_OTHER_PROGRAM_H
#define BUNDLECTL_OTHER_PROGRAM_H

#include "verbs.h"

/// Executes the program that has a verb's code, with the same arguments. Returns only on failure: prints a sentence
/// that says which package to install, and returns the exit status.
/// @param argv ends with a null pointer
int RunOtherProgram(Program program, char** argv);

#endif
