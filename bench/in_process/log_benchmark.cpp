// The cost of a record of the host platform's log. It goes to /dev/null, so the figure is mostly that of its
// formatting.
#include <zq_log.h>

#include <benchmark/benchmark.h>

#include <cstdlib>

namespace {

void LogRecord(benchmark::State& state)
{
    int number = 0;
    for (auto _ : state) {
        ZQ_WriteLog(4, 1, 0, 0, __FILE__, __LINE__, "bundle[%s] state changing[%s] -> [%d]", "bundle", "Installed",
                    number++);
    }
}
BENCHMARK(LogRecord)->Threads(1)->Threads(8)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    setenv("ZQ_LOG_FILE", "/dev/null", 1); // before the first record and the first thread
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
