#ifndef TESTS_SUPPORT_WATCHER_MAKING_H
#define TESTS_SUPPORT_WATCHER_MAKING_H

#include <functional>

/// While it lives, a new directory watcher scans so seldom that it raises no event. The test raises its own events.
/// An action can run right after a watcher is made.
class SleepyWatchers {
public:
    explicit SleepyWatchers(std::function<void()> whenMade = {});
    ~SleepyWatchers();
    SleepyWatchers(const SleepyWatchers&) = delete;
    SleepyWatchers& operator=(const SleepyWatchers&) = delete;
};

#endif
