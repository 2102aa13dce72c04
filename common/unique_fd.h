#ifndef COMMON_UNIQUE_FD_H
#define COMMON_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

namespace Common {

/// A descriptor and the duty to close it. Moves, never copies. Takes no lock and no heap. Closing may change errno.
class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) noexcept : m_fd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.Release()) {}
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

    /// Closes what it holds and owns fd instead.
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
