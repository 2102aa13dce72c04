#ifndef UNIQUE_FD_H
#define UNIQUE_FD_H

#include <unistd.h>

#include <utility>

namespace SystemServer {

/// A descriptor and the duty to close it. Moves, never copies.
class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) noexcept : m_fd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        if (this != &other) {
            Close();
            m_fd = std::exchange(other.m_fd, -1);
        }
        return *this;
    }
    ~UniqueFd() { Close(); }

    void Close() noexcept
    {
        if (m_fd >= 0) {
            ::close(std::exchange(m_fd, -1));
        }
    }
    int Get() const noexcept { return m_fd; }

private:
    int m_fd;
};

} // namespace SystemServer

#endif
