// Replaces calls of the C library: see fault.h.

#include "support/fault.h"
#include "support/fault_wrap.h"

#include <dirent.h>
#include <linux/magic.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <ctime>

namespace {

std::atomic<bool> g_pauses{true};
std::atomic<bool> g_isOverlay{false};

} // namespace

NoPauses::NoPauses()
{
    g_pauses = false;
}

NoPauses::~NoPauses()
{
    g_pauses = true;
}

OverlayEverywhere::OverlayEverywhere()
{
    g_isOverlay = true;
}

OverlayEverywhere::~OverlayEverywhere()
{
    g_isOverlay = false;
}

FAILING_CALL(PIPE2, "pipe2", int, -1, (int* ends, int flags), (ends, flags), flags)
FAILING_CALL(FORK, "fork", pid_t, -1, (), (), 0)
FAILING_CALL(SETPGID, "setpgid", int, -1, (pid_t pid, pid_t group), (pid, group), pid)
FAILING_CALL(GETPGID, "getpgid", pid_t, -1, (pid_t pid), (pid), pid)
FAILING_CALL(KILL, "kill", int, -1, (pid_t pid, int signal), (pid, signal), pid)
FAILING_CALL(WAITID, "waitid", int, -1, (idtype_t type, id_t id, siginfo_t* info, int options),
             (type, id, info, options), static_cast<int>(id))
FAILING_CALL(WAITPID, "waitpid", pid_t, (FaultValue(Call::WAITPID) == 0 ? 0 : -1),
             (pid_t pid, int* status, int options), (pid, status, options), pid)
// A variadic call always passes on its last argument, even if the caller gave none.
FAILING_CALLS(OPEN, "open", int, -1, (const char* path, int flags, mode_t mode), (path, flags, mode), flags)
FAILING_TIMED_CALLS(FCNTL, "fcntl", "__fcntl_time64", int, -1, (int fd, int command, void* value), (fd, command, value),
                    fd)
FAILING_CALL(PRCTL, TIMED("prctl", "__prctl_time64"), int, -1,
             (int option, unsigned long one, unsigned long two, unsigned long three, unsigned long four),
             (option, one, two, three, four), option)
FAILING_CALL(FSYNC, "fsync", int, -1, (int fd), (fd), fd)
FAILING_CALL(DLOPEN, "dlopen", void*, nullptr, (const char* path, int flags), (path, flags), flags)
FAILING_CALL(DUP3, "dup3", int, -1, (int from, int to, int flags), (from, to, flags), from)
FAILING_CALL(OPENDIR, "opendir", DIR*, nullptr, (const char* path), (path), 0)
FAILING_CALLS(READDIR, "readdir", void*, nullptr, (DIR * directory), (directory), 0)
FAILING_TIMED_CALLS(STAT, "stat", "__stat64_time64", int, -1, (const char* path, void* status), (path, status), 0)
FAILING_TIMED_CALLS(LSTAT, "lstat", "__lstat64_time64", int, -1, (const char* path, void* status), (path, status), 0)
FAILING_TIMED_CALLS(FSTATAT, "fstatat", "__fstatat64_time64", int, -1,
                    (int directory, const char* path, void* status, int flags), (directory, path, status, flags),
                    directory)
FAILING_CALL(STATX, "statx", int, -1, (int directory, const char* path, int flags, unsigned mask, void* status),
             (directory, path, flags, mask, status), directory)
FAILING_CALL(READLINK, "readlink", ssize_t, -1, (const char* path, char* target, std::size_t size),
             (path, target, size), 0)
FAILING_CALL(MKDIR, "mkdir", int, -1, (const char* path, mode_t mode), (path, mode), 0)
FAILING_CALL(CHMOD, "chmod", int, -1, (const char* path, mode_t mode), (path, mode), 0)
FAILING_CALL(UNLINK, "unlink", int, -1, (const char* path), (path), 0)
FAILING_CALL(FLOCK, "flock", int, -1, (int fd, int operation), (fd, operation), fd)
FAILING_CALL(INOTIFY_RM_WATCH, "inotify_rm_watch", int, -1, (int fd, int watch), (fd, watch), fd)
FAILING_CALLS(SET_LIMIT, "setrlimit", int, -1, (int resource, const void* limit), (resource, limit), resource)
FAILING_CALL(RAISE, "raise", int, -1, (int signal), (signal), signal)
FAILING_CALL(SIGNALFD, "signalfd", int, -1, (int fd, const sigset_t* mask, int flags), (fd, mask, flags), fd)
FAILING_CALL(TIMERFD_CREATE, "timerfd_create", int, -1, (int clock, int flags), (clock, flags), clock)
FAILING_CALL(TIMERFD_SETTIME, TIMED("timerfd_settime", "__timerfd_settime64"), int, -1,
             (int fd, int flags, const void* time, void* before), (fd, flags, time, before), fd)
FAILING_CALL(SOCKET, "socket", int, -1, (int domain, int type, int protocol), (domain, type, protocol), domain)
FAILING_CALL(BIND, "bind", int, -1, (int fd, const sockaddr* address, socklen_t size), (fd, address, size), fd)
FAILING_CALL(LISTEN, "listen", int, -1, (int fd, int backlog), (fd, backlog), fd)
FAILING_CALL(CONNECT, "connect", int, -1, (int fd, const sockaddr* address, socklen_t size), (fd, address, size), fd)
FAILING_CALL(FCHMOD, "fchmod", int, -1, (int fd, mode_t mode), (fd, mode), fd)
FAILING_CALL(ACCEPT, "accept4", int, -1, (int fd, sockaddr* address, socklen_t* size, int flags),
             (fd, address, size, flags), fd)
FAILING_CALL(GETSOCKOPT, TIMED("getsockopt", "__getsockopt64"), int, -1,
             (int fd, int level, int option, void* value, socklen_t* size), (fd, level, option, value, size), fd)
FAILING_CALL(RECV, "recv", ssize_t, -1, (int fd, void* data, std::size_t size, int flags), (fd, data, size, flags), fd)
FAILING_CALL(SEND, "send", ssize_t, -1, (int fd, const void* data, std::size_t size, int flags),
             (fd, data, size, flags), fd)

ssize_t RealRead(int fd, void* data, std::size_t size) REAL("read");
ssize_t WrappedRead(int fd, void* data, std::size_t size) WRAPPED("read");
ssize_t RealWrite(int fd, const void* data, std::size_t size) REAL("write");
ssize_t WrappedWrite(int fd, const void* data, std::size_t size) WRAPPED("write");
int RealClose(int fd) REAL("close");
int WrappedClose(int fd) WRAPPED("close");
int RealNanosleep(const timespec* time, timespec* left) REAL(TIMED("nanosleep", "__nanosleep64"));
int WrappedNanosleep(const timespec* time, timespec* left) WRAPPED(TIMED("nanosleep", "__nanosleep64"));
// The name in sources with file sizes of 64 bits, such as this one.
int RealStatfs(const char* path, struct statfs* status) REAL("statfs64");
int WrappedStatfs(const char* path, struct statfs* status) WRAPPED("statfs64");
int RealSignalMask(int how, const sigset_t* mask, sigset_t* before) REAL("pthread_sigmask");
int WrappedSignalMask(int how, const sigset_t* mask, sigset_t* before) WRAPPED("pthread_sigmask");
int RealCancel(pthread_t thread) REAL("pthread_cancel");
int WrappedCancel(pthread_t thread) WRAPPED("pthread_cancel");
int RealLock(pthread_mutex_t* mutex) REAL("pthread_mutex_lock");
int WrappedLock(pthread_mutex_t* mutex) WRAPPED("pthread_mutex_lock");

int WrappedStatfs(const char* path, struct statfs* status)
{
    const int result = FailsWithErrno(Call::STATFS, 0) ? -1 : RealStatfs(path, status);
    if (result == 0 && g_isOverlay) {
        status->f_type = OVERLAYFS_SUPER_MAGIC;
    }
    return result;
}

ssize_t WrappedRead(int fd, void* data, std::size_t size)
{
    return FailsWithErrno(size == 1 ? Call::READ_BYTE : Call::READ, fd) ? -1 : RealRead(fd, data, size);
}

ssize_t WrappedWrite(int fd, const void* data, std::size_t size)
{
    const Call call = size == 1 ? Call::WRITE_BYTE : Call::WRITE;
    if (!MustFail(call, fd)) {
        return RealWrite(fd, data, size);
    }
    if (FaultValue(call) == 0) {
        return RealWrite(fd, data, size / 2);
    }
    errno = FaultValue(call);
    return -1;
}

int WrappedClose(int fd)
{
    const bool fails = MustFail(Call::CLOSE, fd);
    const int result = RealClose(fd);
    if (!fails) {
        return result;
    }
    errno = FaultValue(Call::CLOSE);
    return -1;
}

int WrappedNanosleep(const timespec* time, timespec* left)
{
    if (FailsWithErrno(Call::NANOSLEEP, 0)) {
        if (left != nullptr) {
            *left = *time;
        }
        return -1;
    }
    return g_pauses ? RealNanosleep(time, left) : 0;
}

int WrappedSignalMask(int how, const sigset_t* mask, sigset_t* before)
{
    return MustFail(Call::SIGNAL_MASK, how) ? FaultValue(Call::SIGNAL_MASK) : RealSignalMask(how, mask, before);
}

int WrappedCancel(pthread_t thread)
{
    return MustFail(Call::CANCEL_THREAD, 0) ? FaultValue(Call::CANCEL_THREAD) : RealCancel(thread);
}

int WrappedLock(pthread_mutex_t* mutex)
{
    return LockMustFail() ? FaultValue(Call::LOCK_MUTEX) : RealLock(mutex);
}
