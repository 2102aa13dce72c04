#include "printable.h"

#include "common/control_characters.h"

std::string Printable(std::string_view text)
{
    std::string line;
    while (!text.empty()) {
        const std::size_t size = Common::UnitSize(text.data(), text.size());
        if (Common::IsControlUnit(text.data(), size)) {
            const Common::Escape escape = Common::EscapeOf(text.data(), size);
            line.append(escape.text.data(), escape.length);
        } else {
            line.append(text, 0, size);
        }
        text.remove_prefix(size);
    }
    return line;
}
