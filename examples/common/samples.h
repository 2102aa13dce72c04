#ifndef EXAMPLES_SAMPLES_H
#define EXAMPLES_SAMPLES_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string>
#include <system_error>
#include <utility>

/// What the native items of the examples share: how they find their bundle, and how they store what they measure.
namespace Examples {

/// The bundle's directory, from the path of a file in its "bin". An item starts in the server's working directory and
/// knows only its own path.
inline std::string BundleOf(std::string file)
{
    for (int level = 0; level < 2; ++level) {
        file.erase(file.rfind('/'));
    }
    return file;
}

/// A series of samples in a file of comma-separated lines, each with the time in seconds first. A line is one write, so
/// a SIGKILL never leaves half a line. The size is bounded: a full file is renamed and replaces the one renamed before.
class Samples {
public:
    /// @param bundle its "data" exists, because the install script has made it
    /// @param columns after "time", for the heading
    Samples(const std::string& bundle, const std::string& name, std::string columns)
        : m_path(bundle + "/data/" + name), m_heading("time," + std::move(columns) + '\n')
    {}

    /// @throws std::system_error the line cannot be written whole
    void Append(const std::string& values) const
    {
        PutAsideWhenFull();
        // Opened each time: an update script may have moved the file away.
        const int file = ::open(m_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        struct stat status {};
        const bool isOpen = file >= 0 && ::fstat(file, &status) == 0;
        const std::string line = std::to_string(std::time(nullptr)) + ',' + values + '\n';
        const bool isWritten = isOpen && WriteWhole(file, status.st_size == 0 ? m_heading + line : line);
        const int error = errno;
        if (file >= 0) {
            ::close(file);
        }
        if (!isWritten) {
            throw std::system_error(error, std::generic_category(), m_path);
        }
    }

private:
    static constexpr off_t FULL = off_t{256} * 1024;

    static bool WriteWhole(int file, const std::string& text)
    {
        const ssize_t written = ::write(file, text.data(), text.size());
        if (written >= 0 && static_cast<std::size_t>(written) < text.size()) {
            errno = ENOSPC;
            return false;
        }
        return written >= 0;
    }

    void PutAsideWhenFull() const
    {
        struct stat status {};
        if (::stat(m_path.c_str(), &status) == 0 && status.st_size >= FULL) {
            static_cast<void>(std::rename(m_path.c_str(), (m_path + ".1").c_str()));
        }
    }

    const std::string m_path;
    const std::string m_heading;
};

} // namespace Examples

#endif
