#ifndef BUNDLECTL_MODEL_RECORDER_FILE_H
#define BUNDLECTL_MODEL_RECORDER_FILE_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Model {

/// A launch that the recorder has seen. Process id and start time identify a process while the machine runs. The boot
/// id identifies that run.
struct RecordedLaunch {
    std::string boot; ///< /proc/sys/kernel/random/boot_id
    pid_t pid = 0;
    std::uint64_t startTicks = 0;
    pid_t server = 0;
    std::string bundle; ///< escaped, as in the log
    std::string item;

    bool operator==(const RecordedLaunch& other) const
    {
        return boot == other.boot && pid == other.pid && startTicks == other.startTicks && server == other.server &&
               bundle == other.bundle && item == other.item;
    }
};

constexpr const char RECORDER_FILE[] = "/var/lib/bundle-server/launches";

/// The file of launches. It is text with one line for each launch, fields separated by tabs, and a first line that
/// names the format. Each line is appended by one write. When the file exceeds its limit, its newer half is written to
/// a new file that replaces it, so a reader finds one or the other.
class RecorderFile {
public:
    static constexpr std::size_t LIMIT = std::size_t{256} * 1024;

    explicit RecorderFile(std::string path, std::size_t limit = LIMIT);

    /// False, with errno set, when it cannot be written.
    bool Append(const RecordedLaunch& launch) const;

    /// All launches in the file, the oldest first. Skips other lines, such as an incomplete last one. Empty when the
    /// file is missing or has another format.
    std::vector<RecordedLaunch> Read() const;

private:
    bool Shorten(const std::string& text) const;

    const std::string m_path;
    const std::size_t m_limit;
};

/// The boot id of this machine's present run; empty when it cannot be read.
std::string BootId();

} // namespace Model

#endif
