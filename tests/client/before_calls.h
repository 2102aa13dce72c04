#ifndef TESTS_CLIENT_BEFORE_CALLS_H
#define TESTS_CLIENT_BEFORE_CALLS_H

#include <functional>

/// While it lives, the library's calls that send a request or write an event are preceded by an action, which gets the
/// descriptor. On the thread that makes it.
class BeforeSending {
public:
    using Action = std::function<void(int fd)>;

    explicit BeforeSending(Action action);
    BeforeSending(const BeforeSending&) = delete;
    BeforeSending& operator=(const BeforeSending&) = delete;
    ~BeforeSending();
};

#endif
