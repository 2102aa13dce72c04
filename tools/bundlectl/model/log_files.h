#ifndef BUNDLECTL_MODEL_LOG_FILES_H
#define BUNDLECTL_MODEL_LOG_FILES_H

#include "log_source.h"
#include "log_time.h"

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Model {

/// The files of a rotated log, from the oldest to the one that is being written: "log.2.gz", "log.1", "log"; or, with
/// dates in their names, "log-20260101.gz", "log-20260102", "log".
std::vector<std::string> RotatedFiles(const std::string& path);

/// A place in a rotated log.
struct LogPlace {
    std::size_t file = 0; ///< of RotatedFiles
    std::uint64_t offset = 0;
};

/// The place where the records from a time on begin. Reads only a few pieces of plain files. If the clock was set back,
/// the place may be earlier than necessary.
LogPlace PlaceOfTime(const std::vector<std::string>& files, Time time);

/// The place of a server's first record. Reads from the end, so that earlier records cost nothing. Empty when the
/// server's beginning is no longer in the log.
std::optional<LogPlace> PlaceOfServerStart(const std::vector<std::string>& files, pid_t server);

/// The log from a place on to the end of its last file.
std::unique_ptr<LogSource> ReadFrom(const std::vector<std::string>& files, LogPlace place);

} // namespace Model

#endif
