#include "format_text.h"

#include <array>
#include <cstdarg>
#include <cstdio>

namespace Output {

std::string FormatText(const char* format, ...)
{
    std::array<char, 64> text{};
    std::va_list arguments;
    va_start(arguments, format);
    static_cast<void>(std::vsnprintf(text.data(), text.size(), format, arguments));
    va_end(arguments);
    return text.data();
}

} // namespace Output
