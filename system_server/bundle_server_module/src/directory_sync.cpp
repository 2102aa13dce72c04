#include "directory_sync.h"

#include "bundle_log.h"
#include "common/unique_fd.h"
#include "termination_signals.h"
#include "thread_annotations.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <exception>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace SystemServer {

namespace {

// Returns 0 or an errno.
int WriteOut(const std::string& directory)
{
    const Common::UniqueFd descriptor(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!descriptor.IsOpen() || fsync(descriptor.Get()) == -1) {
        return errno == EINVAL ? 0 : errno; // EINVAL: the file system does not need to write anything
    }
    return 0;
}

} // namespace

struct DirectorySync::State {
    explicit State(std::string path) : directory(std::move(path)) {}

    /// Marks a request as finished.
    /// @return the next one; empty when no request is left; the thread then ends
    std::optional<std::uint64_t> Finish(std::uint64_t request) EXCLUDES(mutex)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        finished = request;
        hasFinished.notify_all();
        hasThread = finished != requested;
        return hasThread ? std::optional<std::uint64_t>(requested) : std::nullopt;
    }

    const std::string directory;
    std::mutex mutex; // held for a moment, never while the file system is at work
    std::condition_variable_any hasFinished;
    std::uint64_t requested GUARDED_BY(mutex) = 0;
    std::uint64_t finished GUARDED_BY(mutex) = 0; // the latest request whose changes are written out
    bool hasThread GUARDED_BY(mutex) = false;
};

DirectorySync::DirectorySync(std::string directory) : m_state(std::make_shared<State>(std::move(directory))) {}

void DirectorySync::Run(std::chrono::milliseconds patience) noexcept
{
    try {
        State& state = *m_state;
        const auto end = std::chrono::steady_clock::now() + patience;
        const std::lock_guard<std::mutex> lock(state.mutex);
        const std::uint64_t request = ++state.requested;
        if (!state.hasThread) {
            const TerminationSignalsBlocked blocked;
            std::thread(Work, m_state, request).detach();
            state.hasThread = true;
        }
        while (state.finished < request) {
            if (state.hasFinished.wait_until(state.mutex, end) == std::cv_status::timeout && state.finished < request) {
                BUNDLE_INFO("bundle collection dir[%s] is not synced yet.", state.directory.c_str());
                return;
            }
        }
    } catch (const std::exception& e) {
        BUNDLE_ERROR("bundle collection dir[%s] can not be synced: %s.", m_state->directory.c_str(),
                     ReasonOf(e).c_str());
    }
}

void DirectorySync::Work(const std::shared_ptr<State>& state, std::uint64_t firstRequest)
{
    prctl(PR_SET_NAME, "bundle_sync");
    for (std::optional<std::uint64_t> request = firstRequest; request; request = state->Finish(*request)) {
        const int error = WriteOut(state->directory);
        if (error != 0) {
            BUNDLE_ERROR("bundle collection dir[%s] can not be synced: %s.", state->directory.c_str(),
                         std::strerror(error));
        }
    }
}

} // namespace SystemServer
