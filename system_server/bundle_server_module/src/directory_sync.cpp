#include "directory_sync.h"

#include "bundle_log.h"
#include "child_process.h"
#include "common/unique_fd.h"
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
#include <thread>
#include <utility>

namespace SystemServer {

namespace {

// Returns 0 or an errno.
int WriteOut(const std::string& directory)
{
    const Common::UniqueFd descriptor(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!descriptor.IsOpen() || fsync(descriptor.Get()) == -1) {
        return errno == EINVAL ? 0 : errno; // a file system that has nothing to write out says EINVAL
    }
    return 0;
}

} // namespace

struct DirectorySync::State {
    explicit State(std::string path) : directory(std::move(path)) {}

    const std::string directory;
    std::mutex mutex; // held for a moment, never while the file system is at work
    std::condition_variable hasFinished;
    std::uint64_t requested GUARDED_BY(mutex) = 0;
    std::uint64_t finished GUARDED_BY(mutex) = 0; // the request that the last one to end had been begun for
    bool hasThread GUARDED_BY(mutex) = false;
};

DirectorySync::DirectorySync(std::string directory) : m_state(std::make_shared<State>(std::move(directory))) {}

void DirectorySync::Run(std::chrono::milliseconds patience) noexcept
{
    try {
        State& state = *m_state;
        std::unique_lock<std::mutex> lock(state.mutex);
        const std::uint64_t request = ++state.requested;
        if (!state.hasThread) {
            const TerminationSignalsBlocked blocked;
            std::thread(Work, m_state).detach();
            state.hasThread = true;
        }
        if (!state.hasFinished.wait_for(lock, patience, [&] { return state.finished >= request; })) {
            BUNDLE_INFO("bundle collection dir[%s] is not synced yet.", state.directory.c_str());
        }
    } catch (const std::exception& e) {
        BUNDLE_ERROR("bundle collection dir[%s] can not be synced: %s.", m_state->directory.c_str(),
                     ReasonOf(e).c_str());
    }
}

void DirectorySync::Work(const std::shared_ptr<State>& state)
{
    prctl(PR_SET_NAME, "bundle_sync");
    std::unique_lock<std::mutex> lock(state->mutex);
    while (state->finished != state->requested) {
        const std::uint64_t request = state->requested;
        lock.unlock();
        const int error = WriteOut(state->directory);
        if (error != 0) {
            BUNDLE_ERROR("bundle collection dir[%s] can not be synced: %s.", state->directory.c_str(),
                         std::strerror(error));
        }
        lock.lock();
        state->finished = request;
        state->hasFinished.notify_all();
    }
    state->hasThread = false;
}

} // namespace SystemServer
