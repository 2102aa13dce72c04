#ifndef BUNDLECTL_BUNDLE_WAIT_H
#define BUNDLECTL_BUNDLE_WAIT_H

#include "model/installation.h"

#include <chrono>
#include <string>
#include <vector>

/// What is to come about for each of some bundles.
struct BundleCondition {
    enum Kind { ACTIVE, GONE, ITEM };

    Kind kind = ACTIVE;
    std::string item;
    std::vector<std::string> names;
    Model::Choice choice;
    std::chrono::seconds timeout{};

    bool WaitsFor(const std::string& text);
};

/// Waits until it has come about. Says on standard error what is missing when the time is over. Returns the exit
/// status.
int WaitForBundles(const BundleCondition& condition);

#endif
