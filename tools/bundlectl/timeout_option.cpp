#include "timeout_option.h"

#include "arguments.h"

#include <charconv>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace {

constexpr std::chrono::hours LONGEST{24};

/// The seconds of a unit; empty for an unknown unit.
std::optional<int> SecondsIn(std::string_view unit)
{
    if (unit.empty() || unit == "s") {
        return 1;
    }
    if (unit == "m") {
        return 60;
    }
    return unit == "h" ? std::optional<int>(3600) : std::nullopt;
}

std::optional<std::chrono::seconds> Parse(const std::string& text)
{
    const char* const end = text.data() + text.size();
    int number = 0;
    const auto [unit, error] = std::from_chars(text.data(), end, number);
    const auto factor = SecondsIn({unit, static_cast<std::size_t>(end - unit)});
    if (error != std::errc() || !factor || number < 1 || number > std::chrono::seconds(LONGEST).count() / *factor) {
        return std::nullopt;
    }
    return std::chrono::seconds(number) * *factor;
}

std::string Fault(const std::string& text)
{
    return Parse(text) ? "" : "\"" + text + "\" is no time from 1s to 24h, such as 30, 30s or 5m";
}

} // namespace

void AddTimeout(Arguments& arguments, const char* description, std::chrono::seconds& timeout)
{
    AddSpan(arguments, "--timeout", description, timeout);
}

void AddSpan(Arguments& arguments, const char* name, const char* description, std::chrono::seconds& span)
{
    Argument argument{name, description, "TIME", Fault};
    argument.standard = std::to_string(span.count()) + "s";
    arguments.Add(argument, [&span](const std::string& text) { span = Parse(text).value_or(span); });
}
