#ifndef BUNDLECTL_COMMAND_H
#define BUNDLECTL_COMMAND_H

#include <functional>

namespace CLI {
class App;
}

/// What a command does once its arguments are read. Returns the exit status.
using Action = std::function<int()>;

/// Adds a command's arguments to its part of the command line. Returns what to do with them.
Action DefineDelete(CLI::App& command);
Action DefineEvents(CLI::App& command);
Action DefineWait(CLI::App& command);

/// One sub-command, a source file of its own each.
struct Command {
    const char* name;
    const char* description;
    Action (*define)(CLI::App& command);
};

constexpr Command COMMANDS[] = {
    {"delete", "Delete a bundle: stop it, unload it and remove its directory", DefineDelete},
    {"events", "Listen on the event service and print a line for each event", DefineEvents},
    {"wait", "Wait until the server has started all bundles and answers requests", DefineWait},
};

#endif
