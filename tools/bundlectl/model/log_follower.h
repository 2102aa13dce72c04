#ifndef BUNDLECTL_MODEL_LOG_FOLLOWER_H
#define BUNDLECTL_MODEL_LOG_FOLLOWER_H

#include "log_source.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>

namespace Model {

/// Reads a log file that is still written to. Follows both forms of rotation: renaming the log, and copying and
/// truncating it, with the copy at PATH.1. Records that a rotation has lost are noted, not shown. Reading never waits:
/// 0 means that there is nothing new yet, so ask again a moment later. Used by one thread at a time.
class LogFollower : public LogSource {
public:
    /// @param path need not exist yet; reading then begins at the start of the new file
    /// @param offset where to begin; END: only new records
    static constexpr std::uint64_t END = ~std::uint64_t{0};
    explicit LogFollower(std::string path, std::uint64_t offset = END);

    std::size_t Read(char* buffer, std::size_t size) override;

private:
    /// The bytes just before the current place. After a truncation, the file has other bytes there, or none.
    struct Mark {
        std::array<char, 128> bytes{};
        std::size_t size = 0;
    };

    bool Open(std::uint64_t offset);
    std::size_t ReadOn(char* buffer, std::size_t size);
    bool IsReplaced() const;
    bool IsTruncated() const;
    bool HasMark(int fd) const;
    void TakeMark();
    void Restart();

    const std::string m_path;
    Common::UniqueFd m_fd;
    std::unique_ptr<LogSource> m_copy; // the part of a truncated log's copy beyond the current place
    std::uint64_t m_offset = 0;
    Mark m_mark;
};

} // namespace Model

#endif
