#include "name_lock.h"

#include "common/service_directory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace HostPlatform {

namespace {

constexpr mode_t MODE = 0600;

/// Whether the file can be this user's lock: no other user may open it. A hard link to a file of this user that others
/// may open is no lock.
bool IsOwn(const struct stat& status)
{
    return S_ISREG(status.st_mode) && status.st_uid == ::geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

} // namespace

NameLock::NameLock(const std::string& service)
    : m_path(std::string(Common::SERVICE_DIRECTORY) + "/." + service + ".lock")
{}

// The lock is given up explicitly. A child between fork and exec has the descriptor too, and would keep the lock if
// this process only closed its own.
NameLock::~NameLock()
{
    if (m_isTaken) {
        ::unlink(m_path.c_str());
        ::flock(m_fd.Get(), LOCK_UN);
    }
}

NameLock::Attempt NameLock::Try(Foreign foreign)
{
    constexpr int mostChanges = 10;
    for (int i = 0; i < mostChanges; ++i) {
        const Opening opening = Open(foreign);
        if (opening == Opening::CHANGED) {
            continue;
        }
        if (opening != Opening::OPEN) {
            return opening == Opening::BLOCKED ? Attempt::BUSY : Attempt::FAILED;
        }
        if (::flock(m_fd.Get(), LOCK_EX | LOCK_NB) != 0) {
            if (errno != EWOULDBLOCK && errno != EINTR) {
                return Attempt::FAILED;
            }
            m_obstacle = "is locked by another process";
            return Attempt::BUSY;
        }
        // A holder removes the file before it gives up the lock, so the locked file may be gone from the path.
        if (IsAtItsPath()) {
            m_isTaken = true;
            return Attempt::TAKEN;
        }
    }
    m_obstacle = "changes all the time";
    return Attempt::BUSY;
}

NameLock::Opening NameLock::Open(Foreign foreign)
{
    m_fd.Reset(::open(m_path.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, MODE));
    if (!m_fd.IsOpen()) {
        return errno == EEXIST ? OpenExisting(foreign) : Opening::FAILED;
    }
    // The umask may have removed bits, which the next server of this user needs if this one is killed. For this one it
    // does not matter.
    static_cast<void>(::fchmod(m_fd.Get(), MODE));
    return Opening::OPEN;
}

NameLock::Opening NameLock::OpenExisting(Foreign foreign)
{
    struct stat status {};
    if (::lstat(m_path.c_str(), &status) != 0) {
        return errno == ENOENT ? Opening::CHANGED : Opening::FAILED;
    }
    if (!IsOwn(status)) {
        m_obstacle = "belongs to user " + std::to_string(status.st_uid);
        return foreign == Foreign::REMOVE ? RemoveForeign() : Opening::BLOCKED;
    }
    m_fd.Reset(::open(m_path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    const bool isOwn = m_fd.IsOpen() && ::fstat(m_fd.Get(), &status) == 0 && IsOwn(status);
    return isOwn ? Opening::OPEN : Opening::CHANGED;
}

/// The name belongs to the server, so it removes files of other users there if it can.
NameLock::Opening NameLock::RemoveForeign()
{
    if (::unlink(m_path.c_str()) == 0 || errno == ENOENT) {
        return Opening::CHANGED;
    }
    m_obstacle += std::string(" and cannot be removed: ") + std::strerror(errno);
    return Opening::BLOCKED;
}

bool NameLock::IsAtItsPath() const
{
    struct stat locked {};
    struct stat atPath {};
    return ::fstat(m_fd.Get(), &locked) == 0 && ::lstat(m_path.c_str(), &atPath) == 0 &&
           locked.st_dev == atPath.st_dev && locked.st_ino == atPath.st_ino;
}

} // namespace HostPlatform
