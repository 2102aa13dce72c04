#ifndef BUNDLECTL_EVENT_COMMAND_RUN_H
#define BUNDLECTL_EVENT_COMMAND_RUN_H

#include <string>

/// Runs a command in a shell and waits for its end, so that events are handled one after the other. The variables
/// BUNDLE_EVENT_PUBLISHER and BUNDLE_EVENT contain the event. No signal is blocked in the command. A failure is printed
/// to standard error.
void RunForEvent(const std::string& command, const std::string& publisher, const std::string& event);

#endif
