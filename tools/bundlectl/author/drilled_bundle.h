#ifndef BUNDLECTL_AUTHOR_DRILLED_BUNDLE_H
#define BUNDLECTL_AUTHOR_DRILLED_BUNDLE_H

#include "model/status.h"
#include "trial_server.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace Trials {

/// The drill cannot go on: the server has ended, or the user wants no more.
class DrillEnded : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A bundle under a server that runs, as it is drilled.
class DrilledBundle {
public:
    using Milliseconds = std::chrono::milliseconds;

    /// The state while the server does not know the bundle.
    static constexpr const char UNKNOWN[] = "unknown";

    struct Item {
        std::string name;
        bool isThread = false;
        bool isUp = false;
        pid_t pid = 0;
        std::optional<Model::Time> since;
        std::uint64_t launches = 0;      ///< that the log tells
        std::deque<Model::ItemEnd> ends; ///< the latest last

        /// The end of that process; null when it has none yet.
        const Model::ItemEnd* EndOf(pid_t process) const;
    };

    /// The bundle as it is at one moment.
    struct Moment {
        std::string state;
        bool isUp = false; ///< Active with all items up
        bool runsScript = false;
        std::vector<Item> items;

        /// Null when the server knows no such item.
        const Item* Find(const std::string& item) const;
    };

    /// @param path the bundle's directory in the collection
    DrilledBundle(TrialServer& server, std::string path) : m_server(server), m_path(std::move(path)) {}

    const std::string& Path() const { return m_path; }
    pid_t Server() const { return m_server.Pid(); }

    /// @throws DrillEnded
    Moment Look();
    /// Looks until the condition holds. @return whether it came to hold in time
    /// @throws DrillEnded
    bool WaitUntil(const std::function<bool(const Moment&)>& condition, Milliseconds patience);
    /// @throws DrillEnded
    void Wait(Milliseconds moment);
    /// Waits until each item that is a process runs in another one than before. @return whether all are up then
    bool WaitForRenewal(const Moment& before, Milliseconds patience);
    /// Has the server start its items once more. @return whether all are up
    bool Restart(Milliseconds patience);

private:
    TrialServer& m_server;
    const std::string m_path;
};

} // namespace Trials

#endif
