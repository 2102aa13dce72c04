#ifndef BUNDLECTL_OUTPUT_TERMINAL_H
#define BUNDLECTL_OUTPUT_TERMINAL_H

#include <cstddef>
#include <string>
#include <string_view>

namespace Output {

/// The abilities of standard output.
struct Terminal {
    bool isTerminal = false;
    bool hasColour = false; ///< it is a terminal, and the user permits colours
    bool hasUtf8 = false;
    std::size_t columns = 80;
    std::size_t rows = 24;
};

/// Examines standard output and the environment: NO_COLOR, TERM, LC_ALL, LC_CTYPE, LANG.
Terminal AskTerminal();

enum class Colour { NONE, GOOD, BAD, WARNING, FAINT, STRONG };

/// The text in a colour, if colours are available. A colour is never the only information.
std::string Paint(const Terminal& terminal, Colour colour, std::string_view text);

/// A sign, and its replacement without UTF-8.
enum class Mark { GOOD, BAD, WARNING, UNKNOWN };
std::string Sign(const Terminal& terminal, Mark mark);

/// The text as the terminal can show it: without UTF-8, arrows become "->", and any other character a "?". Control
/// characters are always escaped.
std::string Shown(const Terminal& terminal, std::string_view text);

/// The width in columns of a text without colours.
std::size_t WidthOf(std::string_view text);

/// The beginning of a text that fits into so many columns, with an ellipsis if it is cut.
std::string Fitted(const Terminal& terminal, std::string_view text, std::size_t columns);

} // namespace Output

#endif
