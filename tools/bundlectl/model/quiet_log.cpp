#include "quiet_log.h"

#include <zq_log.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <utility>

namespace {

constexpr int LEVEL_ERROR = 3;

thread_local std::string t_lastError;

} // namespace

void ZQ_WriteLog(int /*module*/, int level, int /*flag*/, int /*reserved*/, const char* /*file*/, int /*line*/,
                 const char* format, ...)
{
    if (level != LEVEL_ERROR) {
        return;
    }
    std::array<char, 4096> text{};
    va_list arguments;
    va_start(arguments, format);
    static_cast<void>(std::vsnprintf(text.data(), text.size(), format, arguments));
    va_end(arguments);
    t_lastError = text.data();
}

// NOLINTNEXTLINE(readability-identifier-naming): the header's own name
void ZQ_WriteLanguageLog(int /*module*/, int /*level*/, const char* /*format*/, const char* /*second_format*/, ...) {}

namespace Model {

std::string TakeServerError()
{
    return std::exchange(t_lastError, {});
}

} // namespace Model
