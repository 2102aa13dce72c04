#ifndef BUNDLECTL_BUNDLE_WAIT_H
#define BUNDLECTL_BUNDLE_WAIT_H

#include "model/installation.h"

#include <chrono>
#include <string>
#include <vector>

/// A condition that each of some bundles must meet.
struct BundleCondition {
    enum Kind { ACTIVE, GONE, ITEM };

    Kind kind = ACTIVE;
    std::string item;
    std::vector<std::string> names;
    Model::Choice choice;
    std::chrono::seconds timeout{};

    /// Sets kind and item from the argument of --for: "active", "gone" or "item:NAME". False for any other text.
    bool WaitsFor(const std::string& text);
};

/// Waits until all bundles meet the condition and a server runs. Checks five times a second. When the time is over, it
/// says on standard error what is missing.
/// @return EXIT_DONE, EXIT_UNREACHABLE without a server, or EXIT_TIMED_OUT
int WaitForBundles(const BundleCondition& condition);

#endif
