#ifndef BUNDLECTL_COMPLETION_H
#define BUNDLECTL_COMPLETION_H

#include "verbs.h"

#include <string_view>

/// The first argument of a call by a shell's completion: bundlectl --complete WORD...
constexpr std::string_view COMPLETION_OPTION = "--complete";

/// Prints the possible completions of the last word, one line each: the word, a tab, a description. ":files" and
/// ":directories", without a tab, ask the shell for paths. Prints nothing else, also after a failure. Returns the exit
/// status.
int Complete(const Commands& commands, int argc, char** argv);

#endif
