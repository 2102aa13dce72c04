#ifndef TESTS_UNIT_WATCHER_WAYS_H
#define TESTS_UNIT_WATCHER_WAYS_H

#include <ostream>
#include <vector>

/// A way in which a bundle "radio" comes, goes or changes: a shell command, with COLLECTION and ASIDE in its
/// environment.
struct Way {
    const char* name;
    const char* command;
    const char* tool = "sh"; // what it needs
};
std::ostream& operator<<(std::ostream& stream, const Way& way);

bool HasTool(const Way& way);

/// By which a bundle beside the collection, or its archive "radio.tar" there, comes into it.
std::vector<Way> WaysOfComing();

/// By which it goes from the collection.
std::vector<Way> WaysOfGoing();

/// By which it is changed, so that it counts as modified. There is another version of it beside the collection.
std::vector<Way> WaysOfChanging();

/// By which something below it is written to that is no change of it.
std::vector<Way> WaysOfWriting();

#endif
