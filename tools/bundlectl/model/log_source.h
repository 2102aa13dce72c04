#ifndef BUNDLECTL_MODEL_LOG_SOURCE_H
#define BUNDLECTL_MODEL_LOG_SOURCE_H

#include "common/unique_fd.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Model {

/// The bytes of a log, in their order. One thread at a time.
class LogSource {
public:
    LogSource() = default;
    virtual ~LogSource();
    LogSource(const LogSource&) = delete;
    LogSource& operator=(const LogSource&) = delete;

    /// Reads up to size bytes. 0 at the end; in a followed log, more may come later. Waits for a pipe.
    virtual std::size_t Read(char* buffer, std::size_t size) = 0;

    /// Why bytes are missing, one sentence each. Empty when none are.
    const std::vector<std::string>& Troubles() const { return m_troubles; }

protected:
    void Note(std::string trouble) { m_troubles.push_back(std::move(trouble)); }

private:
    std::vector<std::string> m_troubles;
};

/// Reads an open file or pipe from its current position.
/// @param name the file's name in messages
std::unique_ptr<LogSource> ReadDescriptor(Common::UniqueFd fd, std::string name);

/// A file from an offset on. A file whose name ends in ".gz" is decompressed, and the offset counts decompressed bytes.
/// A file that cannot be opened is an empty source with a trouble.
std::unique_ptr<LogSource> ReadLogFile(const std::string& path, std::uint64_t offset = 0);

/// Several sources, one after the other.
std::unique_ptr<LogSource> ReadInTurn(std::vector<std::unique_ptr<LogSource>> sources);

/// The output of a command. At its end, waits for the command's end: a failure of the command is a trouble. The
/// destructor of the source ends the command.
/// @param environment additional variables for the command, "NAME=VALUE"
std::unique_ptr<LogSource> ReadCommand(const std::vector<std::string>& arguments,
                                       const std::vector<std::string>& environment = {});

} // namespace Model

#endif
