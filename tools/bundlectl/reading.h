#ifndef BUNDLECTL_READING_H
#define BUNDLECTL_READING_H

#include "arguments.h"

#include <string>
#include <vector>

/// What came of reading the words of a command line.
struct Reading {
    std::string fault; ///< a sentence without its full stop; empty: none
    bool wantsHelp = false;
};

/// Reads the words after the verb into the arguments. When nothing is wrong, and no help is wanted, each argument has
/// taken its values, in the order of the declarations.
Reading ReadWords(const Arguments& arguments, const std::vector<std::string>& words);

/// What there is to give: a line each, with headings.
std::string TellArguments(const Arguments& arguments);

/// What stands after the verb in a line that shows its use: "[OPTIONS] NAME...".
std::string UsageOf(const Arguments& arguments);

/// A line of a help text: a name, and beside it or below what is said of it.
std::string HelpLine(const std::string& name, const std::string& description);

#endif
