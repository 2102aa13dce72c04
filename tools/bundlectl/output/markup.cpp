#include "markup.h"

#include "common/control_characters.h"
#include "printable.h"

namespace Output {

std::string Markup(std::string_view text)
{
    const std::string printable = Printable(text);
    std::string markup;
    for (std::string_view rest = printable; !rest.empty();) {
        const std::size_t size = Common::UnitSize(rest.data(), rest.size());
        const std::string_view unit = rest.substr(0, size);
        const bool isStray = size == 1 && Common::Byte(unit.front()) >= 0x80U;
        markup += unit == "&"    ? "&amp;"
                  : unit == "<"  ? "&lt;"
                  : unit == ">"  ? "&gt;"
                  : unit == "\"" ? "&quot;"
                  : isStray      ? "\uFFFD"
                                 : unit;
        rest.remove_prefix(size);
    }
    return markup;
}

} // namespace Output
