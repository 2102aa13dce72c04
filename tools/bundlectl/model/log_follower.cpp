#include "log_follower.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace Model {

using Common::UniqueFd;

LogFollower::LogFollower(std::string path, std::uint64_t offset) : m_path(std::move(path))
{
    Open(offset);
}

bool LogFollower::Open(std::uint64_t offset)
{
    m_fd.Reset(::open(m_path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    m_offset = 0;
    m_mark = Mark();
    struct stat status {};
    if (!m_fd.IsOpen() || ::fstat(m_fd.Get(), &status) != 0) {
        return false;
    }
    m_offset = std::min(offset, static_cast<std::uint64_t>(status.st_size));
    TakeMark();
    return true;
}

std::size_t LogFollower::Read(char* buffer, std::size_t size)
{
    if (m_copy) {
        const std::size_t count = m_copy->Read(buffer, size);
        if (count > 0) {
            return count;
        }
        m_copy.reset();
    }
    if (!m_fd.IsOpen() && !Open(0)) {
        return 0;
    }
    if (IsTruncated()) {
        Restart();
        return m_copy ? Read(buffer, size) : ReadOn(buffer, size);
    }
    const std::size_t count = ReadOn(buffer, size);
    // Checked only at the end of the file, so that the rest of the old file is read before its successor.
    if (count > 0 || !IsReplaced()) {
        return count;
    }
    const std::size_t rest = ReadOn(buffer, size);
    if (rest > 0) {
        return rest;
    }
    return Open(0) ? ReadOn(buffer, size) : 0;
}

std::size_t LogFollower::ReadOn(char* buffer, std::size_t size)
{
    const ssize_t count = ::pread(m_fd.Get(), buffer, size, static_cast<off_t>(m_offset));
    if (count <= 0) {
        return 0;
    }
    m_offset += static_cast<std::uint64_t>(count);
    TakeMark();
    return static_cast<std::size_t>(count);
}

bool LogFollower::IsReplaced() const
{
    struct stat open {};
    struct stat named {};
    return ::fstat(m_fd.Get(), &open) == 0 && ::stat(m_path.c_str(), &named) == 0 &&
           (open.st_dev != named.st_dev || open.st_ino != named.st_ino);
}

// A log may have been truncated and already have grown beyond the place. The bytes there show this.
bool LogFollower::IsTruncated() const
{
    struct stat status {};
    if (::fstat(m_fd.Get(), &status) != 0) {
        return false;
    }
    return static_cast<std::uint64_t>(status.st_size) < m_offset || !HasMark(m_fd.Get());
}

bool LogFollower::HasMark(int fd) const
{
    std::array<char, sizeof m_mark.bytes> bytes{};
    const ssize_t count = ::pread(fd, bytes.data(), m_mark.size, static_cast<off_t>(m_offset - m_mark.size));
    return count == static_cast<ssize_t>(m_mark.size) &&
           std::memcmp(bytes.data(), m_mark.bytes.data(), m_mark.size) == 0;
}

void LogFollower::TakeMark()
{
    const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(m_offset, m_mark.bytes.size()));
    const ssize_t count = ::pread(m_fd.Get(), m_mark.bytes.data(), size, static_cast<off_t>(m_offset - size));
    m_mark.size = count == static_cast<ssize_t>(size) ? size : 0;
}

// The copy contains the records between the last read and the copying.
void LogFollower::Restart()
{
    const std::string copy = m_path + ".1";
    UniqueFd fd(::open(copy.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (fd.IsOpen() && m_mark.size > 0 && HasMark(fd.Get())) {
        ::lseek(fd.Get(), static_cast<off_t>(m_offset), SEEK_SET);
        m_copy = ReadDescriptor(std::move(fd), copy);
    } else {
        Note(m_path + " was truncated: what was written to it just before is not shown.");
    }
    m_offset = 0;
    m_mark.size = 0;
}

} // namespace Model
