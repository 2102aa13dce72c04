// The lowest possible cost of answering requests: an epoll loop over SOCK_SEQPACKET that writes the same four log
// records and sends the header back with the status 404.
//
//     floor_request LOG SOCKET
#define _GNU_SOURCE
#include "record.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>

static int g_log;
static int g_epoll;

static void Fail(const char* what)
{
    fprintf(stderr, "floor_request: %s: %s\n", what, strerror(errno));
    exit(1);
}

static void Watch(int fd)
{
    struct epoll_event event = {.events = EPOLLIN, .data.fd = fd};
    if (epoll_ctl(g_epoll, EPOLL_CTL_ADD, fd, &event) == -1) {
        Fail("epoll_ctl");
    }
}

static int Listen(const char* path)
{
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    if (fd == -1 || bind(fd, (const struct sockaddr*)&address, sizeof address) == -1 || listen(fd, 64) == -1) {
        Fail(path);
    }
    return fd;
}

static void Answer(int fd, pid_t self)
{
    static unsigned char packet[65536];
    const ssize_t size = recv(fd, packet, sizeof packet, MSG_DONTWAIT);
    if (size < 8) {
        close(fd);
        return;
    }
    WriteRecord(g_log, self, 1, "receive uri: 0,method: 4");
    WriteRecord(g_log, self, 2, "find bundle[nobody]...");
    WriteRecord(g_log, self, 3, "bundle [nobody] not found.");
    WriteRecord(g_log, self, 4, "find bundle[nobody] fail.");
    const uint16_t reply[4] = {0, 0x8000, 0, 404};
    if (send(fd, reply, sizeof reply, MSG_DONTWAIT | MSG_NOSIGNAL) == -1) {
        close(fd);
    }
}

int main(int argc, char** argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: floor_request LOG SOCKET\n");
        return 2;
    }
    g_log = open(argv[1], O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
    g_epoll = epoll_create1(EPOLL_CLOEXEC);
    if (g_log == -1 || g_epoll == -1) {
        Fail("start");
    }
    const int listener = Listen(argv[2]);
    Watch(listener);
    const pid_t self = getpid();
    for (;;) {
        struct epoll_event events[32];
        const int count = epoll_wait(g_epoll, events, 32, -1);
        for (int i = 0; i < count; ++i) {
            if (events[i].data.fd == listener) {
                Watch(accept4(listener, NULL, NULL, SOCK_CLOEXEC | SOCK_NONBLOCK));
            } else {
                Answer(events[i].data.fd, self);
            }
        }
    }
}
