#ifndef TESTS_SUPPORT_WATCHER_MAKING_H
#define TESTS_SUPPORT_WATCHER_MAKING_H

#include <functional>

/// While it lives, a directory watcher is made to look so seldom that it raises no event in the test, which raises its
/// own; and something may be done when it has just been made.
class SleepyWatchers {
public:
    explicit SleepyWatchers(std::function<void()> whenMade = {});
    ~SleepyWatchers();
    SleepyWatchers(const SleepyWatchers&) = delete;
    SleepyWatchers& operator=(const SleepyWatchers&) = delete;
};

#endif
