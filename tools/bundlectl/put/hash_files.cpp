#include "hash_files.h"

#include "hash.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>

namespace Put {

namespace {

/// The files that several threads hash, each once.
class Work {
public:
    Work(const std::string& root, std::vector<Entry>& entries) : m_root(root), m_entries(entries) {}

    /// Hashes files until all are done or one cannot be read.
    void Run() noexcept
    {
        try {
            for (std::size_t i = m_next++; i < m_entries.size(); i = m_next++) {
                Entry& entry = m_entries[i];
                if (entry.kind == Entry::FILE) {
                    const HashedFile hashed = HashFile(m_root + "/" + entry.path);
                    entry.size = hashed.size;
                    entry.hash = hashed.hash;
                }
            }
        } catch (...) {
            m_next = m_entries.size();
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_failure = std::current_exception();
        }
    }

    /// Called when all threads have ended.
    void RethrowFailure() const
    {
        if (m_failure) {
            std::rethrow_exception(m_failure);
        }
    }

private:
    const std::string& m_root;
    std::vector<Entry>& m_entries;
    std::atomic<std::size_t> m_next{0};
    std::mutex m_mutex;
    std::exception_ptr m_failure; // guarded by m_mutex while threads run
};

/// The number of additional threads. It is 0 for a few small files, which are hashed before a thread has started.
std::size_t HelpersFor(const std::vector<Entry>& entries)
{
    constexpr std::uint64_t much = std::uint64_t{8} * 1024 * 1024;
    constexpr std::size_t most = 3;
    std::uint64_t size = 0;
    for (const Entry& entry : entries) {
        size += entry.size;
    }
    const std::size_t processors = std::max(1U, std::thread::hardware_concurrency());
    return size < much ? 0 : std::min(most, processors - 1);
}

} // namespace

void HashFiles(const std::string& root, std::vector<Entry>& entries)
{
    Work work(root, entries);
    std::vector<std::thread> helpers;
    try {
        for (std::size_t count = HelpersFor(entries); helpers.size() < count;) {
            helpers.emplace_back(&Work::Run, &work);
        }
    } catch (const std::system_error&) {
        // Without an additional thread it only takes longer.
    }
    work.Run();
    for (std::thread& helper : helpers) {
        helper.join();
    }
    work.RethrowFailure();
}

} // namespace Put
