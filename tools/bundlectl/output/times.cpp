#include "times.h"

#include "format_text.h"

#include <array>
#include <ctime>

namespace Output {

namespace {

std::tm Local(Model::Time time)
{
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm local{};
    ::localtime_r(&seconds, &local);
    return local;
}

} // namespace

std::string Rfc3339(Model::Time time)
{
    const auto whole = std::chrono::floor<std::chrono::seconds>(time);
    const std::time_t seconds = std::chrono::system_clock::to_time_t(whole);
    std::tm utc{};
    ::gmtime_r(&seconds, &utc);
    std::array<char, 64> text{};
    const std::size_t size = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &utc);
    return std::string(text.data(), size) + FormatText(".%06dZ", static_cast<int>((time - whole).count()));
}

std::string LocalTime(Model::Time time, Model::Time now)
{
    const std::tm local = Local(time);
    const std::tm today = Local(now);
    const bool isToday = local.tm_yday == today.tm_yday && local.tm_year == today.tm_year;
    std::array<char, 64> text{};
    const std::size_t size = isToday ? std::strftime(text.data(), text.size(), "%H:%M:%S", &local)
                                     : std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local);
    return {text.data(), size};
}

std::string Ago(Model::Time time, Model::Time now)
{
    return Model::SpanText(now - time) + " ago";
}

std::string Size(std::uint64_t kilobytes)
{
    constexpr std::uint64_t unit = 1024;
    if (kilobytes < unit) {
        return std::to_string(kilobytes) + " KiB";
    }
    return std::to_string(kilobytes / unit) + "." + std::to_string(kilobytes % unit * 10 / unit) + " MiB";
}

} // namespace Output
