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

/// The drill cannot continue: the server has ended, or the user has stopped the drill.
class DrillEnded : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A bundle that is being drilled, under a running server.
class DrilledBundle {
public:
    using Milliseconds = std::chrono::milliseconds;

    /// The name of the state while the server does not know the bundle.
    static constexpr const char UNKNOWN[] = "unknown";

    struct Item {
        std::string name;
        bool isThread = false;
        bool isUp = false;
        pid_t pid = 0;
        std::optional<Model::Time> since;
        std::uint64_t launches = 0;      ///< in the log
        std::deque<Model::ItemEnd> ends; ///< the latest last

        /// The end of that process; null while it has not ended.
        const Model::ItemEnd* EndOf(pid_t process) const;
    };

    /// The bundle's state at one moment.
    struct Moment {
        std::string state;
        bool isUp = false; ///< Active with all items up, and the server's start is over
        bool runsScript = false;
        std::vector<Item> items;

        /// Whether the items are threads of the server.
        bool IsOfThreads() const;
        /// Null when the server knows no such item.
        const Item* Find(const std::string& item) const;
    };

    /// @param path the bundle's directory in the collection
    DrilledBundle(TrialServer& server, std::string path) : m_server(server), m_path(std::move(path)) {}

    const std::string& Path() const { return m_path; }
    pid_t Server() const { return m_server.Pid(); }

    /// @throws DrillEnded
    Moment Look();
    /// Checks until the condition holds. @return whether it held in time
    /// @throws DrillEnded
    bool WaitUntil(const std::function<bool(const Moment&)>& condition, Milliseconds patience);
    /// @throws DrillEnded
    void Wait(Milliseconds moment);
    /// Waits until each item has been started again. @return whether all items are up then
    bool WaitForRenewal(const Moment& before, Milliseconds patience);
    /// Waits until the server has ended. @return how; empty: it has not
    /// @throws DrillEnded the user has stopped the drill
    std::string WaitForServersEnd(Milliseconds patience);
    /// Starts the server again after its end. @return whether all items are up
    bool StartServer(Milliseconds patience);
    /// Makes the server start its items once more. @return whether all are up
    bool Restart(Milliseconds patience);

private:
    TrialServer& m_server;
    const std::string m_path;
};

} // namespace Trials

#endif
