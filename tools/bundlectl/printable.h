#ifndef BUNDLECTL_PRINTABLE_H
#define BUNDLECTL_PRINTABLE_H

#include <string>
#include <string_view>

/// The text with its control characters as C escapes. So foreign text stays on its line and does not affect the
/// terminal.
std::string Printable(std::string_view text);

#endif
