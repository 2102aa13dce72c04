#ifndef TESTS_SUPPORT_SHELL_H
#define TESTS_SUPPORT_SHELL_H

#include <string>

/// The text of a shell script.
std::string Shell(const std::string& commands);

/// Runs a shell command, which must succeed.
void RunShell(const std::string& command);

/// Runs a shell command and returns what it prints.
std::string OutputOf(const std::string& command);

/// Whether this program is installed.
bool HasProgram(const std::string& name);

#endif
