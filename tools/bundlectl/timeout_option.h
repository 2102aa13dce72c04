#ifndef BUNDLECTL_TIMEOUT_OPTION_H
#define BUNDLECTL_TIMEOUT_OPTION_H

#include <chrono>

class Arguments;

/// Adds "--timeout TIME" to a command: 30, 30s, 5m or 24h. The present value of timeout is the default. timeout must
/// outlive the command line.
void AddTimeout(Arguments& arguments, const char* description, std::chrono::seconds& timeout);

/// The same with another name.
void AddSpan(Arguments& arguments, const char* name, const char* description, std::chrono::seconds& span);

#endif
