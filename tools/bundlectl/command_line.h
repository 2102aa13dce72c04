#ifndef BUNDLECTL_COMMAND_LINE_H
#define BUNDLECTL_COMMAND_LINE_H

#include "verbs.h"

/// The main function of each program. Reads the command line and executes it, or hands it to the program that has the
/// verb's code. Returns the exit status.
int RunProgram(const Commands& commands, int argc, char** argv);

#endif
