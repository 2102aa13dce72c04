#ifndef BUNDLECTL_OUTPUT_FORMAT_TEXT_H
#define BUNDLECTL_OUTPUT_FORMAT_TEXT_H

#include <string>

namespace Output {

/// Formats as printf does, in the locale of the program. Made for numbers: the text ends after 63 bytes.
/// @throws std::bad_alloc
std::string FormatText(const char* format, ...) __attribute__((format(printf, 1, 2)));

} // namespace Output

#endif
