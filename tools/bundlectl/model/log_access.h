#ifndef BUNDLECTL_MODEL_LOG_ACCESS_H
#define BUNDLECTL_MODEL_LOG_ACCESS_H

#include "installation.h"
#include "log_source.h"
#include "log_time.h"

#include <memory>
#include <optional>

namespace Model {

/// Which part of a log is wanted. Nothing said: all of it. It may begin earlier than is asked for, never later.
struct LogPart {
    std::optional<Time> since;
    pid_t server = 0;    ///< not 0: from the beginning of this server on, or all that is there of it
    bool follow = false; ///< the journal: go on with what is written from now on; a file needs a LogFollower
};

/// Opens a log, its old files included. Never null; a log that is nowhere is an empty source with a trouble.
std::unique_ptr<LogSource> OpenLog(const LogLocation& location, const LogPart& part);

} // namespace Model

#endif
