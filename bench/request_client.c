// Sends requests to delete an unknown bundle. Each client has one connection and waits for each reply before the next
// request.
//
//     bench_request_client SOCKET CLIENTS COUNT       each client makes COUNT requests
//     bench_request_client SOCKET CLIENTS SECONDSs    each client makes requests for SECONDS seconds ("5s")
//
// Standard output gets the round trips in nanoseconds, as 64-bit numbers of the machine. A reply that takes ten
// seconds, or a status other than 404, ends it with status 1.
#define _GNU_SOURCE
#include <errno.h>
#include <pthread.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

enum { MAX_CLIENTS = 64, NAME_SIZE = 128, STATUS_NOT_FOUND = 404, METHOD_DELETE = 4 };

struct Packet {
    uint16_t length;
    uint8_t kind;
    uint8_t method;
    uint16_t uri;
    uint16_t status;
    char name[NAME_SIZE];
};

struct Client {
    int fd;
    size_t limit;
    int64_t end;
    int64_t* times;
    size_t count;
};

static int64_t Now(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

static void Fail(const char* what)
{
    fprintf(stderr, "bench_request_client: %s: %s\n", what, strerror(errno));
    exit(1);
}

static int Connect(const char* path)
{
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    if (fd == -1 || connect(fd, (const struct sockaddr*)&address, sizeof address) == -1) {
        Fail(path);
    }
    const struct timeval patience = {10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    return fd;
}

static void Ask(int fd)
{
    const struct Packet request = {.length = NAME_SIZE, .method = METHOD_DELETE, .name = "nobody"};
    if (send(fd, &request, sizeof request, MSG_NOSIGNAL) != (ssize_t)sizeof request) {
        Fail("send");
    }
    struct Packet reply;
    if (recv(fd, &reply, sizeof reply, 0) < 8) {
        Fail("no reply");
    }
    if (reply.status != STATUS_NOT_FOUND) {
        fprintf(stderr, "bench_request_client: status %d\n", reply.status);
        exit(1);
    }
}

static void* Run(void* argument)
{
    struct Client* const client = argument;
    for (int64_t before = Now(); client->count < client->limit && before < client->end;) {
        Ask(client->fd);
        const int64_t after = Now();
        client->times[client->count++] = after - before;
        before = after;
    }
    return NULL;
}

int main(int argc, char** argv)
{
    const int clients = argc == 4 ? atoi(argv[2]) : 0;
    const long amount = argc == 4 ? atol(argv[3]) : 0;
    if (clients < 1 || clients > MAX_CLIENTS || amount < 1) {
        fprintf(stderr, "usage: bench_request_client SOCKET CLIENTS COUNT|SECONDSs\n");
        return 2;
    }
    const bool timed = strchr(argv[3], 's') != NULL;
    const size_t requestsASecond = 200000;
    static struct Client all[MAX_CLIENTS];
    static pthread_t threads[MAX_CLIENTS];
    for (int i = 0; i < clients; ++i) {
        all[i].fd = Connect(argv[1]);
        all[i].limit = timed ? (size_t)amount * requestsASecond : (size_t)amount;
        all[i].times = calloc(all[i].limit, sizeof *all[i].times); // unused pages take no memory
        if (all[i].times == NULL) {
            Fail("calloc");
        }
    }
    const int64_t end = timed ? Now() + (int64_t)amount * 1000000000 : INT64_MAX;
    for (int i = 0; i < clients; ++i) {
        all[i].end = end;
        if (pthread_create(&threads[i], NULL, Run, &all[i]) != 0) {
            Fail("pthread_create");
        }
    }
    for (int i = 0; i < clients; ++i) {
        pthread_join(threads[i], NULL);
        fwrite(all[i].times, sizeof *all[i].times, all[i].count, stdout);
    }
    return fflush(stdout) == 0 ? 0 : 1;
}
