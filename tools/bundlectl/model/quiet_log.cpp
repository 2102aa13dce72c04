#include "quiet_log.h"

#include <zq_log.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <utility>

namespace {

constexpr int LEVEL_ERROR = 3;

thread_local std::string t_lastError;
thread_local Model::RecordSink t_sink;

} // namespace

void ZQ_WriteLog(int /*module*/, int level, int /*flag*/, int /*reserved*/, const char* /*file*/, int /*line*/,
                 const char* format, ...)
{
    if (level != LEVEL_ERROR && !t_sink) {
        return;
    }
    std::array<char, 4096> text{};
    va_list arguments;
    va_start(arguments, format);
    static_cast<void>(std::vsnprintf(text.data(), text.size(), format, arguments));
    va_end(arguments);
    if (t_sink) {
        t_sink(level, text.data());
    }
    if (level == LEVEL_ERROR) {
        t_lastError = text.data();
    }
}

// NOLINTNEXTLINE(readability-identifier-naming): the header's own name
void ZQ_WriteLanguageLog(int /*module*/, int /*level*/, const char* /*format*/, const char* /*second_format*/, ...) {}

namespace Model {

std::string TakeServerError()
{
    return std::exchange(t_lastError, {});
}

void SetRecordSink(RecordSink sink)
{
    t_sink = std::move(sink);
}

} // namespace Model
