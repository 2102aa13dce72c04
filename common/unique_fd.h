#ifndef COMMON_UNIQUE_FD_H
#define COMMON_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

namespace Common {

/// A descriptor and the duty to close it. Moves, never copies. Used by one thread at a time. Takes no lock and no heap.
/// Closing may change errno; a failure to close is not reported, because the descriptor is gone all the same.
class UniqueFd {
public:
    /// Owns fd from now on; -1: owns nothing.
    explicit UniqueFd(int fd = -1) noexcept : m_fd(fd) {}
    /// Takes the other's descriptor, which is then left without one.
    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.Release()) {}
    /// Closes its own descriptor and takes the other's, which is then left without one.
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        Reset(other.Release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { Reset(); }

    /// The descriptor, still owned by this; -1 when there is none.
    int Get() const noexcept { return m_fd; }
    bool IsOpen() const noexcept { return m_fd >= 0; }
    /// The descriptor, which the caller closes from now on.
    int Release() noexcept { return std::exchange(m_fd, -1); }

    /// Closes its descriptor and owns fd instead; -1: owns nothing.
    void Reset(int fd = -1) noexcept
    {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        m_fd = fd;
    }

private:
    int m_fd;
};

} // namespace Common

#endif
