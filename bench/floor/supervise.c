// The lowest possible cost of supervising children. Starts COUNT items one after the other and relaunches each that
// dies. A launch is a pipe for the ready byte, a fork, the child's group, the server's log records, and the pause of a
// second.
//
//     floor_supervise LOG COUNT ITEM
//
// Item number i is executed with "item<i>" as its name, as the server does with its items.
#define _GNU_SOURCE
#include "record.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>

enum { MAX_ITEMS = 1000, NAME_SIZE = 32 };

static int g_log;
static pid_t g_group;
static pid_t g_pids[MAX_ITEMS];

static void Fail(const char* what)
{
    fprintf(stderr, "floor_supervise: %s: %s\n", what, strerror(errno));
    exit(1);
}

static void BecomeItem(int ready, const char* item, int number)
{
    char name[NAME_SIZE];
    snprintf(name, sizeof name, "item%d", number);
    const pid_t self = getpid();
    WriteRecord(g_log, self, 1, "wait for parent process ready...");
    char word = 0;
    if (read(ready, &word, 1) != 1) {
        _exit(1);
    }
    WriteRecord(g_log, self, 2, "wait for parent process ready done pgid is [1234].");
    WriteRecord(g_log, self, 3, "execute binary[/mnt/bench/bundles/bundle1/./bin/item].excute command:{item}");
    execl(item, name, (char*)NULL);
    _exit(1);
}

static void Launch(const char* item, int number)
{
    const pid_t self = getpid();
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) == -1) {
        Fail("pipe2");
    }
    const pid_t pid = fork();
    if (pid == -1) {
        Fail("fork");
    }
    if (pid == 0) {
        close(ends[1]);
        BecomeItem(ends[0], item, number);
    }
    g_pids[number] = pid;
    setpgid(pid, g_group);
    WriteRecord(g_log, self, 4, "parent process ready.notify child process[12345]...");
    if (write(ends[1], "o", 1) != 1) {
        Fail("write");
    }
    WriteRecord(g_log, self, 5, "notify child process[12345] done.");
    close(ends[0]);
    close(ends[1]);
    const struct timespec pause = {1, 0};
    nanosleep(&pause, NULL);
}

static int NumberOf(pid_t pid, int count)
{
    for (int i = 0; i < count; ++i) {
        if (g_pids[i] == pid) {
            return i;
        }
    }
    return -1;
}

static void Supervise(const char* item, int count)
{
    const pid_t self = getpid();
    for (;;) {
        int status = 0;
        const pid_t pid = waitpid(-g_group, &status, 0);
        if (pid == -1) {
            Fail("waitpid");
        }
        const int number = NumberOf(pid, count);
        if (number == -1) {
            continue;
        }
        WriteRecord(g_log, self, 6, "BundleProcessActivator monitor pgid [1234] ");
        WriteRecord(g_log, self, 7, "bundle1.item[12345] abnormal termination, signal: 9.");
        WriteRecord(g_log, self, 8, "bundle1.item[12345] abnormal termination, signal: 9.");
        WriteRecord(g_log, self, 9, "relaunch bundle1.item...");
        Launch(item, number);
    }
}

int main(int argc, char** argv)
{
    const int count = argc == 4 ? atoi(argv[2]) : 0;
    if (count < 1 || count > MAX_ITEMS) {
        fprintf(stderr, "usage: floor_supervise LOG COUNT ITEM\n");
        return 2;
    }
    g_log = open(argv[1], O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
    if (g_log == -1) {
        Fail(argv[1]);
    }
    g_group = getpgrp();
    for (int i = 0; i < count; ++i) {
        Launch(argv[3], i);
    }
    Supervise(argv[3], count);
}
