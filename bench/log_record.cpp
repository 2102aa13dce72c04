// Writes log records from several threads at once.
//
//     bench_log_record THREADS COUNT                  COUNT records a thread, to the file that ZQ_LOG_FILE names
//
// Standard output gets, for each batch of records, the nanoseconds that one record took, as 64-bit numbers of the
// machine. Each record has the number of its thread and its own number, so that a reader finds lost and mixed records.
#include <zq_log.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

namespace {

constexpr int BATCH = 100;

void WriteAll(int thread, int count, std::vector<std::int64_t>& times)
{
    using Clock = std::chrono::steady_clock;
    for (int number = 0; number < count;) {
        const Clock::time_point begin = Clock::now();
        for (int i = 0; i < BATCH; ++i) {
            ZQ_WriteLog(4, 1, 0, 0, __FILE__, __LINE__, "record[%d] of thread[%d].", number++, thread);
        }
        const std::chrono::nanoseconds taken = Clock::now() - begin;
        times.push_back(taken.count() / BATCH);
    }
}

} // namespace

int main(int argc, char** argv)
{
    const int threads = argc == 3 ? static_cast<int>(std::strtol(argv[1], nullptr, 10)) : 0;
    const int count = argc == 3 ? static_cast<int>(std::strtol(argv[2], nullptr, 10)) : 0;
    if (threads < 1 || count < BATCH || count % BATCH != 0) {
        static_cast<void>(
            std::fputs("usage: ZQ_LOG_FILE=FILE bench_log_record THREADS COUNT, hundreds of records\n", stderr));
        return 2;
    }
    std::vector<std::vector<std::int64_t>> times(static_cast<std::size_t>(threads));
    std::vector<std::thread> running;
    running.reserve(times.size());
    for (int thread = 0; thread < threads; ++thread) {
        auto& own = times[static_cast<std::size_t>(thread)];
        own.reserve(static_cast<std::size_t>(count / BATCH));
        running.emplace_back([thread, count, &own] { WriteAll(thread, count, own); });
    }
    for (std::thread& one : running) {
        one.join();
    }
    for (const std::vector<std::int64_t>& own : times) {
        if (std::fwrite(own.data(), sizeof own[0], own.size(), stdout) != own.size()) {
            return 1;
        }
    }
    return std::fflush(stdout) == 0 ? 0 : 1;
}
