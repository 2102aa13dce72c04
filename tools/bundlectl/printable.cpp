#include "printable.h"

#include <initializer_list>

namespace {

bool IsControl(unsigned char byte)
{
    return byte < 0x20U || byte == 0x7FU;
}

/// The control characters U+0080 to U+009F in UTF-8.
bool IsWideControl(std::string_view text)
{
    if (text.size() < 2 || text[0] != '\xC2') {
        return false;
    }
    const auto second = static_cast<unsigned char>(text[1]);
    return second >= 0x80U && second <= 0x9FU;
}

void AppendOctal(std::string& line, unsigned char byte)
{
    line += '\\';
    for (const int shift : {6, 3, 0}) {
        line += static_cast<char>('0' + (static_cast<unsigned>(byte) >> shift) % 8);
    }
}

} // namespace

std::string Printable(std::string_view text)
{
    std::string line;
    while (!text.empty()) {
        const auto byte = static_cast<unsigned char>(text.front());
        if (byte == '\n' || byte == '\t') {
            line += byte == '\n' ? "\\n" : "\\t";
        } else if (IsControl(byte)) {
            AppendOctal(line, byte);
        } else if (IsWideControl(text)) {
            AppendOctal(line, byte);
            AppendOctal(line, static_cast<unsigned char>(text[1]));
            text.remove_prefix(1);
        } else {
            line += text.front();
        }
        text.remove_prefix(1);
    }
    return line;
}
