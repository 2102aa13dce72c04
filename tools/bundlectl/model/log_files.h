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

/// The files of a rotated log, the oldest first and the one that is written to last: "log.2.gz", "log.1", "log"; or,
/// with dates in their names, "log-20260101.gz", "log-20260102", "log".
std::vector<std::string> RotatedFiles(const std::string& path);

/// A place in a rotated log.
struct LogPlace {
    std::size_t file = 0; ///< of RotatedFiles
    std::uint64_t offset = 0;
};

/// Where the records from a time on begin. Of plain files only a few pieces are read for it. Where the clock was set
/// back, it may be earlier than it need be.
LogPlace PlaceOfTime(const std::vector<std::string>& files, Time time);

/// Where the first record of a server stands, that is still there. Read from the end, so that the records before it
/// cost nothing. Empty when its beginning is no longer in the log.
std::optional<LogPlace> PlaceOfServerStart(const std::vector<std::string>& files, pid_t server);

/// The log from a place on to the end of its last file.
std::unique_ptr<LogSource> ReadFrom(const std::vector<std::string>& files, LogPlace place);

} // namespace Model

#endif
