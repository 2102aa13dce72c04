#ifndef PLATFORM_HOST_IPC_NAME_LOCK_H
#define PLATFORM_HOST_IPC_NAME_LOCK_H

#include "common/unique_fd.h"

#include <string>

namespace HostPlatform {

/// The lock that a server takes to claim a service's name: a lock on a file beside the service's socket. Only the
/// server's user may open the file, so no other user can hold the lock. The file exists while the lock is held. The
/// file of a killed server is used again. Used by one thread at a time. The descriptor is close-on-exec.
class NameLock {
public:
    enum class Attempt { TAKEN, BUSY, FAILED };
    /// What to do with a file of another user. Its server removes it in a moment, unless it is an obstacle on purpose.
    enum class Foreign { WAIT, REMOVE };

    /// Takes no lock yet.
    /// @throws std::bad_alloc, as Try does
    explicit NameLock(const std::string& service);
    NameLock(const NameLock&) = delete;
    NameLock& operator=(const NameLock&) = delete;
    /// Removes the file and gives up the lock, if it is held. A forked child that runs this would give up its parent's.
    ~NameLock();

    /// Takes the lock if it is free; never waits. BUSY: Obstacle() says why, and another attempt may succeed. FAILED:
    /// errno says why.
    Attempt Try(Foreign foreign);

    const std::string& Path() const { return m_path; }
    /// What keeps the lock busy, in words for the log; empty before the first BUSY.
    const std::string& Obstacle() const { return m_obstacle; }

private:
    enum class Opening { OPEN, CHANGED, BLOCKED, FAILED };

    Opening Open(Foreign foreign);
    Opening OpenExisting(Foreign foreign);
    Opening RemoveForeign();
    bool IsAtItsPath() const;

    const std::string m_path;
    std::string m_obstacle;
    Common::UniqueFd m_fd;
    bool m_isTaken = false;
};

} // namespace HostPlatform

#endif
