#ifndef TESTS_CLIENT_FAKE_SERVICE_H
#define TESTS_CLIENT_FAKE_SERVICE_H

#include "common/unique_fd.h"

#include <csignal>
#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

/// Replaces the server: a thread that handles the connections one after the other, as the test says.
class FakeService {
public:
    /// What to do with a connection, which is closed afterwards.
    using Peer = std::function<void(int fd)>;

    explicit FakeService(Peer peer);
    FakeService(const FakeService&) = delete;
    FakeService& operator=(const FakeService&) = delete;
    /// Waits for the current connection.
    ~FakeService();

private:
    void Serve();

    const Peer m_peer;
    Common::UniqueFd m_listener;
    Common::UniqueFd m_end;
    std::thread m_thread;
};

/// A service that accepts no connection and whose queue is full.
class BusyService {
public:
    BusyService();

private:
    Common::UniqueFd m_listener;
    std::vector<Common::UniqueFd> m_waiting;
};

/// The next packet of a connection; empty at its end.
std::string ReceivePacket(int fd);
/// False when the client has gone.
bool SendPacket(int fd, std::string_view packet);

/// A service that answers each request with the packet.
FakeService::Peer AnswerWith(const std::string& packet);

/// The descriptors of this process, with their targets.
std::map<int, std::string> OpenDescriptors();

/// Interrupts the thread that makes it with a signal every few milliseconds. The signal's handler does not restart
/// calls.
class Interruptions {
public:
    Interruptions();
    Interruptions(const Interruptions&) = delete;
    Interruptions& operator=(const Interruptions&) = delete;
    ~Interruptions();

    /// How many there have been so far.
    static int Count();

private:
    struct sigaction m_before {};
    timer_t m_timer{};
};

#endif
