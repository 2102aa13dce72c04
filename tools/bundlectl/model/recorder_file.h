#ifndef BUNDLECTL_MODEL_RECORDER_FILE_H
#define BUNDLECTL_MODEL_RECORDER_FILE_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Model {

/// A launch that the recorder has seen. Process id and start time name one process and no other, as long as the machine
/// runs; the boot id names that.
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

/// The file of launches: text, one line a launch, its fields apart by tabs, and a first line that names the format. A
/// line is appended by one write. When the file has outgrown its limit, its newer half is written anew beside it and
/// takes its place, so that a reader finds the one or the other.
class RecorderFile {
public:
    static constexpr std::size_t LIMIT = std::size_t{256} * 1024;

    explicit RecorderFile(std::string path, std::size_t limit = LIMIT);

    /// False, with errno set, when it cannot be written.
    bool Append(const RecordedLaunch& launch) const;

    /// All launches that are there, the oldest first. Lines that are none, an incomplete last one say, are passed over.
    /// Of a file that is missing or of another format there are none.
    std::vector<RecordedLaunch> Read() const;

private:
    bool Shorten(const std::string& text) const;

    const std::string m_path;
    const std::size_t m_limit;
};

/// Of this machine's present run; empty when it cannot be read.
std::string BootId();

} // namespace Model

#endif
