#ifndef BUNDLECTL_COMPLETION_H
#define BUNDLECTL_COMPLETION_H

#include "verbs.h"

#include <string_view>

/// The first argument by which the shells' completions ask: bundlectl --complete WORD...
constexpr std::string_view COMPLETION_OPTION = "--complete";

/// Prints what the last of the words can become, a line each: the word, a tab, what it is. ":files" and ":directories",
/// without a tab, ask the shell for paths. It says nothing else, also when something fails. Returns the exit status.
int Complete(const Commands& commands, int argc, char** argv);

#endif
