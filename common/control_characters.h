#ifndef COMMON_CONTROL_CHARACTERS_H
#define COMMON_CONTROL_CHARACTERS_H

#include <algorithm>
#include <array>
#include <cstddef>

/// Control characters as C escapes, so that a foreign text stays on one line and does nothing to a terminal. Text is
/// taken as UTF-8; a byte that is part of no character counts as one of its own. Any thread. No lock and no heap,
/// because the log uses this between fork and exec.
namespace Common {

/// The one control character of ASCII that is not below the blank.
constexpr unsigned char DELETE_CHARACTER = 0x7F;
/// The first byte, in UTF-8, of the control characters U+0080 to U+009F, and of harmless ones after them.
constexpr unsigned char C1_LEAD = 0xC2;

/// The byte as a number from 0 to 255; char may be signed.
constexpr unsigned char Byte(char c)
{
    return static_cast<unsigned char>(c);
}

/// Whether the byte can stand in a UTF-8 character of several bytes, but not begin it.
constexpr bool IsContinuation(char c)
{
    return (Byte(c) & 0xC0U) == 0x80U;
}

/// The bytes of the UTF-8 character that begins with lead; 1 when no character begins with it. Only this byte is
/// examined: the others may be wrong or missing. UnitSize checks them.
constexpr std::size_t CharacterSize(char lead)
{
    const unsigned char byte = Byte(lead);
    // C0, C1 and F5 to FF never occur in UTF-8.
    if (byte >= 0xF0U && byte <= 0xF4U) {
        return 4;
    }
    if (byte >= 0xE0U && byte < 0xF0U) {
        return 3;
    }
    return byte >= 0xC2U && byte < 0xE0U ? 2 : 1;
}

/// The bytes at the start of a text that a cut must not separate: a character, or one byte that belongs to none.
/// @param text not NUL-terminated; nothing beyond length is read
/// @param length at least 1
/// @return 1 to 4, never more than length
inline std::size_t UnitSize(const char* text, std::size_t length)
{
    const std::size_t size = CharacterSize(*text);
    return size > length || !std::all_of(text + 1, text + size, IsContinuation) ? 1 : size;
}

/// Whether the byte alone is a control character. The controls of two bytes are found by IsControlUnit only.
constexpr bool IsControl(char c)
{
    return Byte(c) < 0x20U || Byte(c) == DELETE_CHARACTER;
}

/// Whether a unit is a control character: of ASCII, or U+0080 to U+009F, which terminals obey too.
/// @param size what UnitSize has returned for it
constexpr bool IsControlUnit(const char* unit, std::size_t size)
{
    return size == 1 ? IsControl(*unit) : size == 2 && Byte(unit[0]) == C1_LEAD && Byte(unit[1]) < 0xA0U;
}

/// The escape of one control character: \n, \t, else a backslash and three octal digits for each of its bytes. Always
/// three, so that a digit that follows is not read as part of the escape. Not NUL-terminated.
struct Escape {
    std::array<char, 8> text; // two bytes of four characters each
    std::size_t length;
};

/// The escape of a unit that IsControlUnit has accepted.
/// @param size 1 or 2; an Escape has room for no more
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
