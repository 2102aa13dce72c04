#ifndef BUNDLECTL_OUTPUT_TERMINAL_H
#define BUNDLECTL_OUTPUT_TERMINAL_H

#include <cstddef>
#include <string>
#include <string_view>

namespace Output {

/// What standard output can show.
struct Terminal {
    bool isTerminal = false;
    bool hasColour = false; ///< a terminal, and the user does not forbid colours
    bool hasUtf8 = false;
    std::size_t columns = 80;
    std::size_t rows = 24;
};

/// Asks standard output and the environment: NO_COLOR, TERM, LC_ALL, LC_CTYPE, LANG.
Terminal AskTerminal();

enum class Colour { NONE, GOOD, BAD, WARNING, FAINT, STRONG };

/// The text in a colour, where there are any. A colour never says anything alone.
std::string Paint(const Terminal& terminal, Colour colour, std::string_view text);

/// A sign and what stands for it where there is no UTF-8.
enum class Mark { GOOD, BAD, WARNING, UNKNOWN };
std::string Sign(const Terminal& terminal, Mark mark);

/// The text as the terminal can show it: without UTF-8, arrows become "->", and any other character a "?". Control
/// characters are escaped, wherever the text comes from.
std::string Shown(const Terminal& terminal, std::string_view text);

/// The columns that a text without colours takes.
std::size_t WidthOf(std::string_view text);

/// The beginning of a text that fits so many columns, with an ellipsis where something is left out.
std::string Fitted(const Terminal& terminal, std::string_view text, std::size_t columns);

} // namespace Output

#endif
