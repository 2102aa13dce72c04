// The program that benchmarks run as an item. It reports the time of its start to the FIFO that BENCH_REPORT names, and
// then sleeps. Linked statically, so that it does almost nothing before main.
//
// A report is one write of 16 bytes: the time of the monotonic clock in nanoseconds, the pid, and the number in the
// name that it was executed under ("item12").
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

struct Report {
    int64_t time;
    int32_t pid;
    int32_t number;
};

int main(int argc, char** argv)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const char* const digits = argc > 0 ? strpbrk(argv[0], "0123456789") : NULL;
    const struct Report report = {(int64_t)now.tv_sec * 1000000000 + now.tv_nsec, getpid(),
                                  digits != NULL ? atoi(digits) : -1};
    const char* const path = getenv("BENCH_REPORT");
    const int fifo = path != NULL ? open(path, O_WRONLY | O_CLOEXEC) : -1;
    if (fifo == -1 || write(fifo, &report, sizeof report) != (ssize_t)sizeof report) {
        return 1;
    }
    close(fifo);
    for (;;) {
        pause();
    }
}
