#ifndef DIRECTORY_SYNC_H
#define DIRECTORY_SYNC_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace SystemServer {

/// Writes a directory out to its file system: after that a name that was removed from it stays removed when the power
/// fails. A file system may take long for it, or hang, so a thread of its own does it, one at a time. The thread lives
/// while there is something to write out.
class DirectorySync {
public:
    explicit DirectorySync(std::string directory);

    /// Returns when all that has been done to the directory up to now is written out, or when the time is over. What
    /// has not been written out by then still will be. Any thread. A failure is only logged.
    void Run(std::chrono::milliseconds patience) noexcept;

private:
    struct State;

    static void Work(const std::shared_ptr<State>& state, std::uint64_t firstRequest);

    const std::shared_ptr<State> m_state; // the thread's as well, which outlives this object where a file system hangs
};

} // namespace SystemServer

#endif
