#ifndef BUNDLECTL_OUTPUT_MARKUP_H
#define BUNDLECTL_OUTPUT_MARKUP_H

#include <string>
#include <string_view>

namespace Output {

/// A text for HTML and SVG, between tags and in quoted attributes: control characters as C escapes, valid UTF-8.
std::string Markup(std::string_view text);

} // namespace Output

#endif
