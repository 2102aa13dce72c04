#ifndef TESTS_SYSTEM_RESTART_PHASE_WATCH_H
#define TESTS_SYSTEM_RESTART_PHASE_WATCH_H

#include "support/daemon_runner.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <string>

/// What a server is doing when it is killed.
enum Phase : std::size_t { START_UP, LAUNCH, RELAUNCH, DELETION, UPDATE, INSTALLATION, PHASES };
constexpr std::array<const char*, PHASES> PHASE_NAMES{"start-up", "launch", "relaunch",
                                                      "delete",   "update", "installation"};

/// Follows a phase of a daemon in its log.
class PhaseWatch {
public:
    explicit PhaseWatch(DaemonRunner& daemon) : m_daemon(daemon) {}

    /// Forgets the previous phase. Only records from now on count.
    void Restart();
    /// @param begin the beginning of the phase's first record; empty when the phase begins with the server
    /// @param end the record that ends it
    void Expect(const std::string& begin, const std::string& end);

    void Follow();
    void AwaitBegin();
    /// Waits for the begin and for the end. Returns the time between them.
    std::chrono::microseconds Measure();
    bool IsIn() const { return m_hasBegun && !m_hasEnded; }

private:
    DaemonRunner& m_daemon;
    std::string m_begin;
    std::string m_end;
    std::size_t m_followed = 0; // records of the log
    bool m_hasBegun = false;
    bool m_hasEnded = false;
};

#endif
