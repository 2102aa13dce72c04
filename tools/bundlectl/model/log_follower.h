#ifndef BUNDLECTL_MODEL_LOG_FOLLOWER_H
#define BUNDLECTL_MODEL_LOG_FOLLOWER_H

#include "log_source.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>

namespace Model {

/// A log file that is still written to, also across its rotation: by renaming it, and by copying and truncating it.
/// Reading never waits: 0 means that there is nothing new yet, so ask again a moment later.
class LogFollower : public LogSource {
public:
    /// @param offset where to begin; END: with what is written from now on
    static constexpr std::uint64_t END = ~std::uint64_t{0};
    explicit LogFollower(std::string path, std::uint64_t offset = END);

    std::size_t Read(char* buffer, std::size_t size) override;

private:
    /// The bytes just before the place that has been reached. After a truncation others stand there.
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
    std::unique_ptr<LogSource> m_copy; // what the copy of a truncated log has beyond the place that was reached
    std::uint64_t m_offset = 0;
    Mark m_mark;
};

} // namespace Model

#endif
