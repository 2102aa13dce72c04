#ifndef TESTS_BUNDLECTL_KNOWN_HISTORY_H
#define TESTS_BUNDLECTL_KNOWN_HISTORY_H

#include <gtest/gtest.h>

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// An item in the state that the test has caused.
struct KnownItem {
    using Clock = std::chrono::steady_clock;

    std::string name;
    pid_t pid = 0; ///< 0: it rests
    int launches = 0;
    int relaunches = 0;
    std::vector<Clock::time_point> relaunchTimes;
    std::string lastEnd = "null"; ///< as JSON, without its time
    std::vector<pid_t> further;   ///< processes that a killed server has left behind

    /// Whether its relaunches are a crash loop. Empty near the bounds of time, where a second decides.
    std::optional<bool> IsCrashLooping(Clock::time_point now) const;
};

struct KnownBundle {
    std::string name;
    std::vector<KnownItem> items;
};

/// The known state of all bundles of a server.
struct KnownHistory {
    std::map<std::string, KnownBundle> bundles;
    bool isLogCut = false; ///< the part of the log with the loading of the bundles is lost

    /// Whether "status --json" and its exit status agree.
    ::testing::AssertionResult Matches(const std::string& json, int status) const;
};

#endif
