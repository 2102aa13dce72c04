#ifndef BUNDLECTL_MODEL_LOG_TIME_H
#define BUNDLECTL_MODEL_LOG_TIME_H

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace Model {

/// The log's clock: microseconds since 1970, UTC.
using Time = std::chrono::time_point<std::chrono::system_clock, std::chrono::microseconds>;
using Microseconds = std::chrono::microseconds;

Time Now();

/// Reads "2026-11-21T04:14:09.123456Z" at the start of a text. Empty when the text begins otherwise.
std::optional<Time> ParseLogTime(std::string_view text);

/// The length of the text that ParseLogTime reads.
constexpr std::size_t LOG_TIME_SIZE = 27;

/// Reads a point in time as people write it: a span before now ("90s", "10m", "2h", "3d"), a time of the local day
/// ("14:05", "14:05:30"), a local date and time ("2026-11-21 04:14[:09]"), or RFC 3339 ("2026-11-21T04:14:09Z").
std::optional<Time> ParsePointInTime(std::string_view text, Time now);

/// Reads a span: a number and a unit out of ms, s, m, h and d; without a unit, seconds.
std::optional<Microseconds> ParseSpan(std::string_view text);

/// A span in words: "250 ms", "12 s", "3 min 20 s", "2 h 5 min", "3 d 4 h".
std::string SpanText(Microseconds span);

} // namespace Model

#endif
