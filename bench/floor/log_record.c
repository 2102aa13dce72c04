// The lowest possible cost of log records from several threads at once: one snprintf and one write each.
//
//     floor_log_record THREADS COUNT                  COUNT records a thread, to the file that ZQ_LOG_FILE names
//
// Standard output gets, for each batch of records, the nanoseconds that one record took, as 64-bit numbers of the
// machine.
#define _GNU_SOURCE
#include <fcntl.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

enum { BATCH = 100, MAX_THREADS = 64 };

struct Writer {
    pthread_t thread;
    int number;
    int64_t* times;
};

static int g_log;
static int g_count;

static int64_t Now(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

static void WriteOne(pid_t id, int thread, int number)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    char record[512];
    const int length = snprintf(
        record, sizeof record, "%lld.%06ldZZZZZZZZZ INFO 4 0 %d %d %s:%d record[%d] of thread[%d].\n",
        (long long)now.tv_sec, now.tv_nsec / 1000, (int)getpid(), (int)id, "bench/log_record.cpp", 1, number, thread);
    if (write(g_log, record, (size_t)length) != length) {
        abort();
    }
}

static void* Run(void* argument)
{
    struct Writer* const writer = argument;
    const pid_t id = gettid();
    for (int batch = 0; batch < g_count / BATCH; ++batch) {
        const int64_t before = Now();
        for (int i = 0; i < BATCH; ++i) {
            WriteOne(id, writer->number, batch * BATCH + i);
        }
        writer->times[batch] = (Now() - before) / BATCH;
    }
    return NULL;
}

int main(int argc, char** argv)
{
    const char* const path = getenv("ZQ_LOG_FILE");
    const int threads = argc == 3 ? atoi(argv[1]) : 0;
    g_count = argc == 3 ? atoi(argv[2]) : 0;
    g_log = path != NULL ? open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640) : -1;
    if (g_log == -1 || threads < 1 || threads > MAX_THREADS || g_count < BATCH || g_count % BATCH != 0) {
        fprintf(stderr, "usage: ZQ_LOG_FILE=FILE floor_log_record THREADS COUNT, hundreds of records\n");
        return 2;
    }
    static struct Writer writers[MAX_THREADS];
    for (int i = 0; i < threads; ++i) {
        writers[i].number = i;
        writers[i].times = calloc((size_t)(g_count / BATCH), sizeof(int64_t));
        if (writers[i].times == NULL || pthread_create(&writers[i].thread, NULL, Run, &writers[i]) != 0) {
            return 1;
        }
    }
    for (int i = 0; i < threads; ++i) {
        pthread_join(writers[i].thread, NULL);
        fwrite(writers[i].times, sizeof(int64_t), (size_t)(g_count / BATCH), stdout);
    }
    return fflush(stdout) == 0 ? 0 : 1;
}
