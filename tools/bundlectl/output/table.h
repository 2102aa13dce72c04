#ifndef BUNDLECTL_OUTPUT_TABLE_H
#define BUNDLECTL_OUTPUT_TABLE_H

#include "terminal.h"

#include <string>
#include <vector>

namespace Output {

/// A table for people: columns as wide as necessary, with two blanks between them. On a terminal, the last column gets
/// the rest of the line and is cut to it. When that leaves too little, the widest other column is narrowed first, or
/// the last column moves below.
class Table {
public:
    struct Cell {
        Cell(std::string content, Colour paint = Colour::NONE) : text(std::move(content)), colour(paint) {}
        Cell(const char* content) : text(content) {}

        std::string text; ///< as shown, without colours
        Colour colour = Colour::NONE;
    };

    /// The place of the last column on a terminal that is too narrow.
    enum class Last {
        BESIDE,
        BELOW, ///< on a line of its own below each row, without its head
    };

    explicit Table(std::vector<std::string> heads, Last last = Last::BESIDE) : m_heads(std::move(heads)), m_last(last)
    {}

    /// @param row at most as many cells as heads
    void Add(std::vector<Cell> row) { m_rows.push_back(std::move(row)); }

    /// The lines, with their line ends. Omits columns in which every row is empty.
    std::string Text(const Terminal& terminal) const;

private:
    std::vector<std::size_t> Widths(const Terminal& terminal) const;
    std::vector<std::size_t> FullWidths() const;
    bool IsLastBelow(const Terminal& terminal) const;

    std::vector<std::string> m_heads;
    const Last m_last;
    std::vector<std::vector<Cell>> m_rows;
};

} // namespace Output

#endif
