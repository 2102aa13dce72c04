#ifndef BUNDLECTL_PRINTABLE_H
#define BUNDLECTL_PRINTABLE_H

#include <string>
#include <string_view>

/// The text with its control characters as C escapes: what came from elsewhere stays on its line and leaves the
/// terminal alone.
std::string Printable(std::string_view text);

#endif
