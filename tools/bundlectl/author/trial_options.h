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

/// What the verbs that run bundles have in common.
struct TrialOptions {
    std::vector<std::string> directories;
    std::string server;
    std::string loader;
};

void AddTrialOptions(Arguments& arguments, TrialOptions& options, bool takesSeveral);
void AddSpanOption(Arguments& arguments, const char* name, const char* description,
                   std::optional<std::chrono::milliseconds>& span);

/// Looks for the programs and at the bundles, and then calls the action in namespaces of its own. Returns the exit
/// status, and says on standard error why the action could not be called.
int RunTrial(const TrialOptions& options, const std::function<int(const ServerPrograms&)>& action);

} // namespace Trials

#endif
