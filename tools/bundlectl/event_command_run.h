#ifndef BUNDLECTL_EVENT_COMMAND_RUN_H
#define BUNDLECTL_EVENT_COMMAND_RUN_H

#include <string>

/// Runs a command in a shell and waits for its end, so that events are dealt with one after the other. It finds the
/// event in the variables BUNDLE_EVENT_PUBLISHER and BUNDLE_EVENT, and no signal is blocked for it. A failure is told
/// on standard error.
void RunForEvent(const std::string& command, const std::string& publisher, const std::string& event);

#endif
