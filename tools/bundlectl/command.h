#ifndef BUNDLECTL_COMMAND_H
#define BUNDLECTL_COMMAND_H

#include <functional>

class Arguments;

/// What a command does once its arguments are read. Returns the exit status.
using Action = std::function<int()>;

/// Adds a command's arguments to its part of the command line. Returns what to do with them.
Action DefineDelete(Arguments& arguments);
Action DefineEvents(Arguments& arguments);
Action DefineLog(Arguments& arguments);
Action DefineStatus(Arguments& arguments);
Action DefineWait(Arguments& arguments);
Action DefineWhy(Arguments& arguments);

/// One sub-command, a source file of its own each.
struct Command {
    const char* name;
    const char* description;
    Action (*define)(Arguments& arguments);
    const char* examples = ""; ///< for the end of its help, a line each
};

constexpr Command COMMANDS[] = {
    {"status", "Show what runs, and what does not", DefineStatus,
     "examples: bundlectl status; bundlectl status media; bundlectl status --watch"},
    {"why", "Tell why a bundle runs, or why it does not", DefineWhy,
     "examples: bundlectl why media; bundlectl why media --evidence"},
    {"log", "Show the server's log, or what it has of one bundle", DefineLog,
     "examples: bundlectl log -f; bundlectl log media --since 10m --level error"},
    {"delete", "Delete a bundle: stop it, unload it and remove its directory", DefineDelete},
    {"events", "Listen on the event service and print a line for each event", DefineEvents},
    {"wait", "Wait until the server has started all bundles and answers requests", DefineWait},
};

#endif
