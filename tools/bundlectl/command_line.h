#ifndef BUNDLECTL_COMMAND_LINE_H
#define BUNDLECTL_COMMAND_LINE_H

#include "verbs.h"

/// The whole of a program: reads its command line and carries it out, or hands it to the program that has the verb's
/// code. Returns the exit status.
int RunProgram(const Commands& commands, int argc, char** argv);

#endif
