#ifndef DIRECTORY_SYNC_H
#define DIRECTORY_SYNC_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace SystemServer {

/// Writes a directory to its file system. After that, a removed name stays removed when the power fails. A file system
/// may take long, or hang, so a separate thread does it. The thread lives while a request is left.
class DirectorySync {
public:
    explicit DirectorySync(std::string directory);

    /// Returns when all changes of the directory up to now are written out, or when the time is over. The thread then
    /// still writes the rest. Any thread. A failure is only logged.
    void Run(std::chrono::milliseconds patience) noexcept;

private:
    struct State;

    static void Work(const std::shared_ptr<State>& state, std::uint64_t firstRequest);

    const std::shared_ptr<State> m_state; // shared with the thread, which outlives this object if a file system hangs
};

} // namespace SystemServer

#endif
