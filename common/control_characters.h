#ifndef COMMON_CONTROL_CHARACTERS_H
#define COMMON_CONTROL_CHARACTERS_H

#include <algorithm>
#include <array>
#include <cstddef>

/// Control characters as C escapes, so that a text from elsewhere stays on its line and does nothing to a terminal. No
/// lock and no heap: the log uses this between fork and exec.
namespace Common {

constexpr unsigned char DELETE_CHARACTER = 0x7F;
/// The first byte, in UTF-8, of the control characters U+0080 to U+009F, and of harmless ones after them.
constexpr unsigned char C1_LEAD = 0xC2;

constexpr unsigned char Byte(char c)
{
    return static_cast<unsigned char>(c);
}

constexpr bool IsContinuation(char c)
{
    return (Byte(c) & 0xC0U) == 0x80U;
}

/// The bytes of the UTF-8 character that begins with lead; 1 when none begins with it.
constexpr std::size_t CharacterSize(char lead)
{
    const unsigned char byte = Byte(lead);
    if (byte >= 0xF0U && byte <= 0xF4U) {
        return 4;
    }
    if (byte >= 0xE0U && byte < 0xF0U) {
        return 3;
    }
    return byte >= 0xC2U && byte < 0xE0U ? 2 : 1;
}

/// The bytes to keep together at the start of a text that is not empty: a character, or one byte that belongs to none.
inline std::size_t UnitSize(const char* text, std::size_t length)
{
    const std::size_t size = CharacterSize(*text);
    return size > length || !std::all_of(text + 1, text + size, IsContinuation) ? 1 : size;
}

constexpr bool IsControl(char c)
{
    return Byte(c) < 0x20U || Byte(c) == DELETE_CHARACTER;
}

/// Whether a unit of UnitSize bytes is a control character.
constexpr bool IsControlUnit(const char* unit, std::size_t size)
{
    return size == 1 ? IsControl(*unit) : size == 2 && Byte(unit[0]) == C1_LEAD && Byte(unit[1]) < 0xA0U;
}

/// The escape of one control character: \n, \t, else three octal digits for each of its bytes.
struct Escape {
    std::array<char, 8> text;
    std::size_t length;
};

constexpr Escape EscapeOf(const char* unit, std::size_t size)
{
    Escape escape{};
    if (*unit == '\n' || *unit == '\t') {
        escape.text[escape.length++] = '\\';
        escape.text[escape.length++] = *unit == '\n' ? 'n' : 't';
        return escape;
    }
    for (std::size_t i = 0; i < size; ++i) {
        const unsigned char byte = Byte(unit[i]);
        escape.text[escape.length++] = '\\';
        escape.text[escape.length++] = static_cast<char>('0' + (byte >> 6U));
        escape.text[escape.length++] = static_cast<char>('0' + ((byte >> 3U) & 7U));
        escape.text[escape.length++] = static_cast<char>('0' + (byte & 7U));
    }
    return escape;
}

} // namespace Common

#endif
