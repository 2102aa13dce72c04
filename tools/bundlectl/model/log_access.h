#ifndef BUNDLECTL_MODEL_LOG_ACCESS_H
#define BUNDLECTL_MODEL_LOG_ACCESS_H

#include "installation.h"
#include "log_source.h"
#include "log_time.h"

#include <memory>
#include <optional>

namespace Model {

/// The requested part of a log. By default the whole log. The result may begin earlier than requested, never later.
struct LogPart {
    std::optional<Time> since;
    pid_t server = 0;    ///< not 0: from the beginning of this server on, as far as it is in the log
    bool follow = false; ///< the journal: continue with new records; a file needs a LogFollower
};

/// Opens a log, its old files included. Never null; a missing log is an empty source with a trouble.
std::unique_ptr<LogSource> OpenLog(const LogLocation& location, const LogPart& part);

} // namespace Model

#endif
