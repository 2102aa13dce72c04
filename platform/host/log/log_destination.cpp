#include "log_destination.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

namespace HostPlatform {

namespace {

constexpr int PATIENCE_MS = 1000;
constexpr mode_t FILE_MODE = 0640;

/// Writes to a pipe without SIGPIPE. In a child before its exec that signal has its default effect, so a log without a
/// reader would kill every child.
ssize_t WriteToPipe(int fd, const char* record, std::size_t length)
{
    sigset_t pipeSignal;
    sigset_t before;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipeSignal, &before);
    const ssize_t written = ::write(fd, record, length);
    const int error = errno;
    if (written < 0 && error == EPIPE && sigismember(&before, SIGPIPE) == 0) {
        const timespec noTime{0, 0};
        ::sigtimedwait(&pipeSignal, nullptr, &noTime);
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = error;
    return written;
}

ssize_t WriteOnce(LogDestination destination, const char* record, std::size_t length)
{
    switch (destination.GetKind()) {
    case LogDestination::PIPE:
        return WriteToPipe(destination.Fd(), record, length);
    case LogDestination::SOCKET:
    case LogDestination::JOURNAL:
        return ::send(destination.Fd(), record, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    case LogDestination::PLAIN:
        break;
    }
    return ::write(destination.Fd(), record, length);
}

bool HasRoomAgain(int fd, LogHealth& health)
{
    if (health.readerHasStopped) {
        return false;
    }
    pollfd watched{fd, POLLOUT, 0};
    if (::poll(&watched, 1, PATIENCE_MS) == 0) {
        health.readerHasStopped = true;
        return false;
    }
    return true;
}

ssize_t WriteWithPatience(LogDestination destination, LogHealth& health, const char* record, std::size_t length)
{
    for (;;) {
        const ssize_t written = WriteOnce(destination, record, length);
        if (written >= 0 || (errno != EINTR && (errno != EAGAIN || !HasRoomAgain(destination.Fd(), health)))) {
            return written;
        }
    }
}

/// Ends the line that a full disk has cut off, and writes the record, in one piece.
bool WriteAfterOpenLine(int fd, LogHealth& health, const char* record, std::size_t length)
{
    char lineEnd = '\n';
    const std::array<iovec, 2> pieces{{{&lineEnd, 1}, {const_cast<char*>(record), length}}};
    ssize_t written = 0;
    do {
        written = ::writev(fd, pieces.data(), pieces.size());
    } while (written < 0 && errno == EINTR);
    if (written == 1 || written == static_cast<ssize_t>(length) + 1) {
        health.lastLineIsOpen = false;
    }
    return written == static_cast<ssize_t>(length) + 1;
}

/// Whether only root or this process's user can have put a link at that path, as with /dev/stderr and links in
/// /var/log. Elsewhere any user may have made it, and it may lead to any file that the server may write to.
bool MayFollowLink(const char* path)
{
    std::array<char, PATH_MAX> directory{'.'};
    if (const char* const slash = std::strrchr(path, '/')) {
        const auto length = static_cast<std::size_t>(slash - path) + 1;
        if (length >= directory.size()) {
            return false;
        }
        std::memcpy(directory.data(), path, length);
    }
    struct stat status {};
    return ::stat(directory.data(), &status) == 0 && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0 &&
           (status.st_uid == 0 || status.st_uid == ::geteuid());
}

/// Whether it is the stream that the system's service manager has given to the process. JOURNAL_STREAM names it by
/// device and inode. A process may inherit the variable although its standard error is another stream.
bool IsJournal(const struct stat& status)
{
    const char* const stream = std::getenv("JOURNAL_STREAM");
    if (stream == nullptr) {
        return false;
    }
    char* colon = nullptr;
    const unsigned long long device = std::strtoull(stream, &colon, 10);
    if (*colon != ':') {
        return false;
    }
    char* end = nullptr;
    const unsigned long long inode = std::strtoull(colon + 1, &end, 10);
    return *end == '\0' && device == status.st_dev && inode == status.st_ino;
}

} // namespace

LogDestination LogDestination::Open(const char* path)
{
    // Non-blocking: neither a FIFO without a reader nor a terminal that is held is waited for.
    const int flags = O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | (MayFollowLink(path) ? 0 : O_NOFOLLOW);
    struct stat status {};
    const bool isFifo = ::stat(path, &status) == 0 && S_ISFIFO(status.st_mode);
    const int fd = isFifo ? ::open(path, flags | O_RDWR) : ::open(path, flags | O_WRONLY | O_CREAT, FILE_MODE);
    if (fd < 0) {
        return {};
    }
    // Asked again, because another file may have taken its place meanwhile.
    return {fd, ::fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode) ? PIPE : PLAIN};
}

LogDestination LogDestination::StandardError()
{
    struct stat status {};
    if (::fstat(STDERR_FILENO, &status) == 0 && S_ISSOCK(status.st_mode)) {
        return {STDERR_FILENO, IsJournal(status) ? JOURNAL : SOCKET};
    }
    if (!S_ISFIFO(status.st_mode)) {
        return {STDERR_FILENO, PLAIN};
    }
    const int fd = ::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    return {fd < 0 ? STDERR_FILENO : fd, PIPE};
}

void LogDestination::Close() const
{
    if (Fd() != STDERR_FILENO) {
        ::close(Fd());
    }
}

LogHealth* NewSharedHealth()
{
    void* const memory = ::mmap(nullptr, sizeof(LogHealth), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return memory == MAP_FAILED ? nullptr : new (memory) LogHealth;
}

bool WriteToLog(LogDestination destination, LogHealth& health, const char* record, std::size_t length)
{
    if (health.lastLineIsOpen) {
        return WriteAfterOpenLine(destination.Fd(), health, record, length);
    }
    const ssize_t written = WriteWithPatience(destination, health, record, length);
    if (written < 0) {
        return false;
    }
    if (health.readerHasStopped) { // read first, so that the processes seldom write the cache line that they share
        health.readerHasStopped = false;
    }
    // The rest is not sent, because another process's record may already follow.
    if (written < static_cast<ssize_t>(length)) {
        health.lastLineIsOpen = written > 0;
        return false;
    }
    return true;
}

} // namespace HostPlatform
