#ifndef BUNDLECTL_TIMEOUT_OPTION_H
#define BUNDLECTL_TIMEOUT_OPTION_H

#include <chrono>
#include <string>

namespace CLI {
class App;
}

/// Adds "--timeout TIME" to a command: 30, 30s, 5m or 24h. The value that timeout has is the default; it must outlive
/// the command line.
void AddTimeout(CLI::App& command, const std::string& description, std::chrono::seconds& timeout);

#endif
