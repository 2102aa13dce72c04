#include "table.h"

#include <algorithm>

namespace Output {

namespace {

constexpr std::size_t GAP = 2;
constexpr std::size_t NARROWEST = 8;
constexpr std::size_t BELOW_INDENT = 3;

void TrimEnd(std::string& line)
{
    line.erase(line.find_last_not_of(' ') + 1);
}

} // namespace

std::vector<std::size_t> Table::FullWidths() const
{
    std::vector<std::size_t> widths(m_heads.size(), 0);
    for (const std::vector<Cell>& row : m_rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], WidthOf(row[i].text));
        }
    }
    for (std::size_t i = 0; i < widths.size(); ++i) {
        widths[i] = widths[i] == 0 ? 0 : std::max(widths[i], WidthOf(m_heads[i]));
    }
    return widths;
}

bool Table::IsLastBelow(const Terminal& terminal) const
{
    std::size_t used = 0;
    for (const std::size_t width : FullWidths()) {
        used += width == 0 ? 0 : width + (used == 0 ? 0 : GAP);
    }
    return m_last == Last::BELOW && terminal.isTerminal && used > terminal.columns;
}

// If a line is too long, the widest column except the last is narrowed first. The last column holds the sentence and
// keeps some room.
std::vector<std::size_t> Table::Widths(const Terminal& terminal) const
{
    std::vector<std::size_t> widths = FullWidths();
    if (!terminal.isTerminal || widths.size() < 2) {
        return widths;
    }
    if (IsLastBelow(terminal)) {
        widths.back() = 0;
    }
    const auto last = widths.end() - 1;
    const std::size_t wanted = std::min<std::size_t>(*last, terminal.columns / 3);
    for (;;) {
        std::size_t used = wanted;
        for (auto width = widths.begin(); width != last; ++width) {
            used += *width == 0 ? 0 : *width + GAP;
        }
        const auto widest = std::max_element(widths.begin(), last);
        if (used <= terminal.columns || *widest <= NARROWEST) {
            *last = *last == 0 ? 0 : terminal.columns > used - wanted ? terminal.columns - (used - wanted) : NARROWEST;
            return widths;
        }
        --*widest;
    }
}

std::string Table::Text(const Terminal& terminal) const
{
    const std::vector<std::size_t> widths = Widths(terminal);
    const bool isLastBelow = IsLastBelow(terminal);
    std::string text;
    const auto addLine = [&](const std::vector<Cell>& row) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            if (widths[i] == 0) {
                continue;
            }
            const std::string shown = terminal.isTerminal ? Fitted(terminal, row[i].text, widths[i]) : row[i].text;
            line += Paint(terminal, row[i].colour, shown);
            if (i + 1 < row.size()) {
                line.append(std::max(widths[i], WidthOf(shown)) - WidthOf(shown) + GAP, ' ');
            }
        }
        TrimEnd(line);
        text += line + "\n";
    };
    std::vector<Cell> heads;
    for (const std::string& head : m_heads) {
        heads.emplace_back(head, Colour::FAINT);
    }
    addLine(heads);
    for (const std::vector<Cell>& row : m_rows) {
        addLine(row);
        if (isLastBelow && row.size() == widths.size() && !row.back().text.empty()) {
            const std::string shown = Fitted(terminal, row.back().text, terminal.columns - BELOW_INDENT);
            text += std::string(BELOW_INDENT, ' ') + Paint(terminal, row.back().colour, shown) + "\n";
        }
    }
    return text;
}

} // namespace Output
