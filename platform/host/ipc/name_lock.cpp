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

/// Whether it can be this user's lock: a file that no other user may open. A hard link to another file of this user
/// that others may open is no lock.
bool IsOwn(const struct stat& status)
{
    return S_ISREG(status.st_mode) && status.st_uid == ::geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

} // namespace

NameLock::NameLock(const std::string& service)
    : m_path(std::string(Common::SERVICE_DIRECTORY) + "/." + service + ".lock")
{}

// Given up explicitly: a child between fork and exec has the descriptor too, and closing ours alone would leave the
// lock with it.
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
        // A holder removes the file before it gives up the lock: what has been locked may have gone from the path.
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

/// The name is the server's own: what others put there is removed where that is possible.
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
