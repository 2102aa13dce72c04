#include <sprintf_s.h>

#include <safe_str_lib.h>

#include <cstdarg>

// The bounds-checked library keeps this name for a macro of its own, which hands it the size that the compiler knows of
// the destination. Callers here see a function, as on the device; the size is then the caller's word alone.
#undef sprintf_s

namespace {

/// The return value tells a failure; the library's own handler would print to standard error.
const constraint_handler_t g_replacedHandler = set_str_constraint_handler_s(ignore_handler_s);

} // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the header's own name
int sprintf_s(char* dest, size_t dest_size, const char* format, ...)
{
    static_cast<void>(g_replacedHandler);
    va_list arguments;
    va_start(arguments, format);
    const int written = vsprintf_s(dest, dest_size, format, arguments);
    va_end(arguments);
    return written;
}
