// A log that writes nothing, so that targets run fast. It still formats each record, so that a sanitizer sees arguments
// that are no text or have no end.
#include <zq_log.h>

#include <array>
#include <cstdarg>
#include <cstdio>

namespace {

__attribute__((format(printf, 1, 0))) void FormatOnly(const char* format, va_list arguments)
{
    std::array<char, 4096> record;
    static_cast<void>(std::vsnprintf(record.data(), record.size(), format, arguments));
}

} // namespace

void ZQ_WriteLog(int /*module*/, int /*level*/, int /*flag*/, int /*reserved*/, const char* /*file*/, int /*line*/,
                 const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    FormatOnly(format, arguments);
    va_end(arguments);
}

// NOLINTNEXTLINE(readability-identifier-naming): the header's own name
void ZQ_WriteLanguageLog(int /*module*/, int /*level*/, const char* format, const char* second_format, ...)
{
    va_list arguments;
    va_start(arguments, second_format);
    FormatOnly(format, arguments);
    va_end(arguments);
}
