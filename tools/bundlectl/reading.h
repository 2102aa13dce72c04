#ifndef BUNDLECTL_READING_H
#define BUNDLECTL_READING_H

#include "arguments.h"

#include <cstddef>
#include <string>
#include <vector>

/// The result of reading the words of a command line.
struct Reading {
    std::string fault; ///< a sentence without its full stop; empty: none
    bool wantsHelp = false;
};

/// Reads the words after the verb into the arguments. If there is no fault and no help is requested, each argument has
/// received its values, in the order of the declarations.
Reading ReadWords(const Arguments& arguments, const std::vector<std::string>& words);

/// The list of the arguments: one line each, with headings.
std::string TellArguments(const Arguments& arguments);

/// The part of a usage line after the verb: "[OPTIONS] NAME...".
std::string UsageOf(const Arguments& arguments);

/// A line of a help text: a name with its description beside it or below.
std::string HelpLine(const std::string& name, const std::string& description);

/// The text behind a beginning, broken before column 80. Further lines are indented.
std::string Wrapped(const std::string& begin, const std::string& text, std::size_t indent);

#endif
