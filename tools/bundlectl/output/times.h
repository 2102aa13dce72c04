#ifndef BUNDLECTL_OUTPUT_TIMES_H
#define BUNDLECTL_OUTPUT_TIMES_H

#include "model/log_time.h"

#include <cstdint>
#include <string>

namespace Output {

/// For programs: RFC 3339, UTC, microseconds.
std::string Rfc3339(Model::Time time);

/// For people: the local time, with the date unless it is today.
std::string LocalTime(Model::Time time, Model::Time now);

/// For people: "12 s ago".
std::string Ago(Model::Time time, Model::Time now);

/// "9.1 MiB", "512 KiB".
std::string Size(std::uint64_t kilobytes);

} // namespace Output

#endif
