// Records the time and executes another program. So it is the time of the exec, without the caller's earlier work.
//
//     bench_stamp FILE PROGRAM [ARGUMENT...]
//
// FILE gets one line: the monotonic clock and the clock of the log, both in nanoseconds.
#define _GNU_SOURCE
#include <stdio.h>
#include <time.h>
#include <unistd.h>

int main(int argc, char** argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: bench_stamp FILE PROGRAM [ARGUMENT...]\n");
        return 2;
    }
    FILE* const file = fopen(argv[1], "we");
    if (file == NULL) {
        perror(argv[1]);
        return 1;
    }
    struct timespec monotonic;
    struct timespec real;
    clock_gettime(CLOCK_REALTIME, &real);
    clock_gettime(CLOCK_MONOTONIC, &monotonic);
    fprintf(file, "%lld %lld\n", (long long)monotonic.tv_sec * 1000000000 + monotonic.tv_nsec,
            (long long)real.tv_sec * 1000000000 + real.tv_nsec);
    fclose(file);
    execv(argv[2], argv + 2);
    perror(argv[2]);
    return 1;
}
