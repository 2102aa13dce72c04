#ifndef TESTS_CLIENT_LISTENING_H
#define TESTS_CLIENT_LISTENING_H

#include <bundle_client.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>

constexpr char EVENT_SERVICE[] = "/mnt/bolt/event.paas.kov";

/// Longer than anything takes on a machine that is very busy, in milliseconds.
constexpr int LONG = 60000;

using Listener = std::unique_ptr<bundle_client_listener, decltype(&bundle_client_listener_close)>;
Listener Listen();

/// The next event as "publisher event", or the code's text.
std::string Next(const Listener& listener, int timeout = LONG);

/// The result of Next when the time is over.
extern const std::string NONE;

/// An event as it is on the wire.
std::string EventOf(std::string publisher, std::string event);

/// Writes to the event service in one piece.
void Write(const std::string& bytes);

class WithoutAnEventService : public ::testing::Test {
protected:
    void SetUp() override;
};

#endif
