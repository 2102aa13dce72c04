#include "log_time.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>

namespace Model {

namespace {

using std::chrono::seconds;

/// The number in so many digits from a place on; -1 when one of the characters is not a digit.
int Digits(std::string_view text, std::size_t place, std::size_t count)
{
    int value = 0;
    for (const char c : text.substr(place, count)) {
        if (c < '0' || c > '9') {
            return -1;
        }
        value = value * 10 + (c - '0');
    }
    return value;
}

/// Days from 1 January 1970. Counted from 1 March, so that the leap day is the last of its year.
std::int64_t DayOf(int year, int month, int day)
{
    const std::int64_t y = month <= 2 ? year - 1 : year;
    const std::int64_t fromMarch = month > 2 ? month - 3 : month + 9;
    return 365 * y + y / 4 - y / 100 + y / 400 + (153 * fromMarch + 2) / 5 + day - 1 - 719468;
}

bool Matches(std::string_view text, std::string_view pattern)
{
    if (text.size() < pattern.size()) {
        return false;
    }
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        const bool isDigit = text[i] >= '0' && text[i] <= '9';
        if (pattern[i] == '0' ? !isDigit : pattern[i] != text[i]) {
            return false;
        }
    }
    return true;
}

Time TimeOfUtc(std::string_view text, int microsecond)
{
    const std::int64_t day = DayOf(Digits(text, 0, 4), Digits(text, 5, 2), Digits(text, 8, 2));
    const std::int64_t second = Digits(text, 11, 2) * 3600 + Digits(text, 14, 2) * 60 + Digits(text, 17, 2);
    return Time(Microseconds((day * 86400 + second) * 1'000'000 + microsecond));
}

std::optional<Time> TimeOfLocal(std::tm& local)
{
    local.tm_isdst = -1;
    const std::time_t time = std::mktime(&local);
    return time == -1 ? std::nullopt : std::optional<Time>(Time(seconds(time)));
}

std::optional<Time> ParseTimeOfDay(std::string_view text, std::tm& local)
{
    const bool hasSeconds = text.size() == 8 && Matches(text, "00:00:00");
    if (!hasSeconds && !(text.size() == 5 && Matches(text, "00:00"))) {
        return std::nullopt;
    }
    local.tm_hour = Digits(text, 0, 2);
    local.tm_min = Digits(text, 3, 2);
    local.tm_sec = hasSeconds ? Digits(text, 6, 2) : 0;
    return TimeOfLocal(local);
}

} // namespace

Time Now()
{
    return std::chrono::time_point_cast<Microseconds>(std::chrono::system_clock::now());
}

std::optional<Time> ParseLogTime(std::string_view text)
{
    if (!Matches(text, "0000-00-00T00:00:00.000000Z")) {
        return std::nullopt;
    }
    return TimeOfUtc(text, Digits(text, 20, 6));
}

std::optional<Microseconds> ParseSpan(std::string_view text)
{
    struct Unit {
        const char* name;
        std::int64_t microseconds;
    };
    constexpr std::array<Unit, 6> units{{{"", 1'000'000},
                                         {"ms", 1000},
                                         {"s", 1'000'000},
                                         {"m", 60'000'000},
                                         {"h", 3'600'000'000},
                                         {"d", 86'400'000'000}}};
    constexpr std::int64_t longest = 1'000'000'000;
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || number < 0 || number > longest) {
        return std::nullopt;
    }
    const std::string_view name = text.substr(static_cast<std::size_t>(end - text.data()));
    for (const Unit& unit : units) {
        if (name == unit.name && number < INT64_MAX / unit.microseconds) {
            return Microseconds(number * unit.microseconds);
        }
    }
    return std::nullopt;
}

std::optional<Time> ParsePointInTime(std::string_view text, Time now)
{
    if (const std::optional<Microseconds> span = ParseSpan(text)) {
        return now - *span;
    }
    if (const std::optional<Time> logged = ParseLogTime(text); logged && text.size() == LOG_TIME_SIZE) {
        return logged;
    }
    if (text.size() == 20 && Matches(text, "0000-00-00T00:00:00Z")) {
        return TimeOfUtc(text, 0);
    }
    std::tm local{};
    const std::time_t today = std::chrono::system_clock::to_time_t(now);
    ::localtime_r(&today, &local);
    if (text.size() > 11 && (Matches(text, "0000-00-00 ") || Matches(text, "0000-00-00T"))) {
        local.tm_year = Digits(text, 0, 4) - 1900;
        local.tm_mon = Digits(text, 5, 2) - 1;
        local.tm_mday = Digits(text, 8, 2);
        text.remove_prefix(11);
    }
    return ParseTimeOfDay(text, local);
}

std::string SpanText(Microseconds span)
{
    const std::int64_t milliseconds = std::max<std::int64_t>(span.count() / 1000, 0);
    const std::int64_t whole = milliseconds / 1000;
    if (whole < 1) {
        return std::to_string(milliseconds) + " ms";
    }
    struct Unit {
        const char* name;
        std::int64_t seconds;
    };
    constexpr std::array<Unit, 4> units{{{" d", 86400}, {" h", 3600}, {" min", 60}, {" s", 1}}};
    std::size_t unit = 0;
    while (whole < units[unit].seconds) {
        ++unit;
    }
    std::string text = std::to_string(whole / units[unit].seconds) + units[unit].name;
    const std::int64_t rest = unit + 1 < units.size() ? whole % units[unit].seconds / units[unit + 1].seconds : 0;
    // After a few minutes, seconds are not of interest.
    if (rest > 0 && (units[unit].seconds > 60 || whole < 600)) {
        text += " " + std::to_string(rest) + units[unit + 1].name;
    }
    return text;
}

} // namespace Model
