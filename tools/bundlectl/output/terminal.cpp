#include "terminal.h"

#include "common/control_characters.h"
#include "printable.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

namespace Output {

namespace {

std::string_view Variable(const char* name)
{
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

bool IsUtf8Wanted()
{
    for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const std::string_view value = Variable(name);
        if (!value.empty()) {
            return value.find("UTF-8") != std::string_view::npos || value.find("utf8") != std::string_view::npos;
        }
    }
    return false;
}

/// East Asian characters take two columns. These ranges are used in names.
bool IsWide(std::string_view character)
{
    const unsigned char lead = Common::Byte(character.front());
    const unsigned char next = character.size() > 1 ? Common::Byte(character[1]) : 0;
    return (lead == 0xE1 && next == 0x84) || (lead == 0xE2 && next >= 0xBA) || (lead >= 0xE3 && lead <= 0xED) ||
           (lead == 0xEF && (next == 0xBC || next == 0xA4 || next == 0xA5)) || lead >= 0xF0;
}

std::size_t WidthOfUnit(std::string_view unit)
{
    return unit.size() > 1 && IsWide(unit) ? 2 : 1;
}

/// Calls with each character of a text.
template <class Visit> void ForEachCharacter(std::string_view text, const Visit& visit)
{
    while (!text.empty()) {
        const std::size_t size = Common::UnitSize(text.data(), text.size());
        if (!visit(text.substr(0, size))) {
            return;
        }
        text.remove_prefix(size);
    }
}

} // namespace

Terminal AskTerminal()
{
    Terminal terminal;
    terminal.isTerminal = ::isatty(STDOUT_FILENO) == 1;
    const std::string_view kind = Variable("TERM");
    terminal.hasColour = terminal.isTerminal && Variable("NO_COLOR").empty() && !kind.empty() && kind != "dumb";
    terminal.hasUtf8 = IsUtf8Wanted();
    winsize size{};
    if (terminal.isTerminal && ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0) {
        terminal.columns = size.ws_col;
        terminal.rows = size.ws_row;
    }
    return terminal;
}

std::string Paint(const Terminal& terminal, Colour colour, std::string_view text)
{
    constexpr std::array<const char*, 6> codes{"", "32", "31", "33", "2", "1"};
    if (!terminal.hasColour || colour == Colour::NONE || text.empty()) {
        return std::string(text);
    }
    return std::string("\033[")
        .append(codes[static_cast<std::size_t>(colour)])
        .append("m")
        .append(text)
        .append("\033[0m");
}

std::string Sign(const Terminal& terminal, Mark mark)
{
    constexpr std::array<const char*, 4> signs{"\u2713", "\u2717", "!", "?"};
    constexpr std::array<const char*, 4> letters{"+", "x", "!", "?"};
    constexpr std::array<Colour, 4> colours{Colour::GOOD, Colour::BAD, Colour::WARNING, Colour::FAINT};
    const auto number = static_cast<std::size_t>(mark);
    return Paint(terminal, colours[number], terminal.hasUtf8 ? signs[number] : letters[number]);
}

std::string Shown(const Terminal& terminal, std::string_view text)
{
    std::string printable = Printable(text);
    if (terminal.hasUtf8) {
        return printable;
    }
    std::string shown;
    ForEachCharacter(printable, [&shown](std::string_view character) {
        const bool isPlain = Common::Byte(character.front()) < 0x80U;
        shown += isPlain ? character : character == "\u2192" ? "->" : "?";
        return true;
    });
    return shown;
}

std::size_t WidthOf(std::string_view text)
{
    std::size_t width = 0;
    ForEachCharacter(text, [&width](std::string_view character) {
        width += WidthOfUnit(character);
        return true;
    });
    return width;
}

std::string Fitted(const Terminal& terminal, std::string_view text, std::size_t columns)
{
    if (WidthOf(text) <= columns) {
        return std::string(text);
    }
    const std::string ellipsis = terminal.hasUtf8 ? "\u2026" : "~";
    std::string fitted;
    std::size_t width = 1; // of the ellipsis
    ForEachCharacter(text, [&](std::string_view character) {
        width += WidthOfUnit(character);
        if (width > columns) {
            return false;
        }
        fitted += character;
        return true;
    });
    return columns == 0 ? std::string() : fitted + ellipsis;
}

} // namespace Output
