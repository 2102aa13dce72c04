#ifndef TESTS_CLIENT_BEFORE_CALLS_H
#define TESTS_CLIENT_BEFORE_CALLS_H

#include <functional>

/// While it lives, an action runs before each library call that sends a request or writes an event. The action gets the
/// descriptor. Applies to the thread that makes the object.
class BeforeSending {
public:
    using Action = std::function<void(int fd)>;

    explicit BeforeSending(Action action);
    BeforeSending(const BeforeSending&) = delete;
    BeforeSending& operator=(const BeforeSending&) = delete;
    ~BeforeSending();
};

#endif
