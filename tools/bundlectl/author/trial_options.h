#ifndef BUNDLECTL_AUTHOR_TRIAL_OPTIONS_H
#define BUNDLECTL_AUTHOR_TRIAL_OPTIONS_H

#include "server_program.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

class Arguments;

namespace Trials {

/// The options that are common to the verbs that run bundles.
struct TrialOptions {
    std::vector<std::string> directories;
    std::string server;
    std::string loader;
};

void AddTrialOptions(Arguments& arguments, TrialOptions& options, bool takesSeveral);
void AddSpanOption(Arguments& arguments, const char* name, const char* description,
                   std::optional<std::chrono::milliseconds>& span);

/// Finds the programs, checks the bundles, and calls the action in its own namespaces. Returns the exit status. If the
/// action cannot be called, prints the reason to standard error.
int RunTrial(const TrialOptions& options, const std::function<int(const ServerPrograms&)>& action);

} // namespace Trials

#endif
