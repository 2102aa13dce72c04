#ifndef TESTS_UNIT_WATCHER_WAYS_H
#define TESTS_UNIT_WATCHER_WAYS_H

#include <ostream>
#include <vector>

/// A way to add, remove or change the bundle "radio": a shell command with COLLECTION and ASIDE in its environment.
struct Way {
    const char* name;
    const char* command;
    const char* tool = "sh"; // the program that it needs
};
std::ostream& operator<<(std::ostream& stream, const Way& way);

bool HasTool(const Way& way);

/// Ways to add a bundle, or its archive "radio.tar", from beside the collection.
std::vector<Way> WaysOfComing();

/// Ways to remove it from the collection.
std::vector<Way> WaysOfGoing();

/// Ways to modify it. Another version of it is beside the collection.
std::vector<Way> WaysOfChanging();

/// Ways to write below it that do not modify it.
std::vector<Way> WaysOfWriting();

#endif
