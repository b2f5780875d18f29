// SPDX-License-Identifier: Apache-2.0
// Aligned columns for people. Main thread only, as Text.h; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_TABLE_H
#define NIMBREL2_TOOLS_NIMBREL_TABLE_H

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "tools/nimbrel/Style.h"

namespace Nimbrel2::Tool {

/// As many columns as a line may have when nothing limits it.
inline constexpr std::size_t Unlimited = static_cast<std::size_t>(-1);

/// A text with its colour.
struct Cell {
    Cell(std::string itsText, Colour itsColour = Colour::None) : text(std::move(itsText)), colour(itsColour) {}
    Cell(const char* itsText) : text(itsText) {}

    std::string text;
    Colour colour = Colour::None;
};

class Table {
public:
    enum class Align { Left, Right };
    enum class Width {
        Full,      ///< Never cut.
        Flexible,  ///< Cut when the table is too wide, the widest column first.
    };

    void AddColumn(const std::string& header, Align align = Align::Left, Width width = Width::Full);

    /// As many cells as columns; texts as they come, ForTerminal is applied here.
    void AddRow(const std::vector<Cell>& cells);

    /// Whether the rows fit into so many columns when the flexible ones are cut.
    bool Fits(std::size_t width) const;

    /// The header and the rows, one line each, within so many columns as far as the flexible ones allow.
    std::string Render(std::size_t width, bool coloured = false) const;

private:
    struct Column {
        std::string header;
        Align align;
        Width width;
    };

    std::vector<std::size_t> ColumnWidths(std::size_t width, std::size_t* total) const;
    std::string RenderLine(const std::vector<Cell>& cells, const std::vector<std::size_t>& widths, bool coloured) const;

    std::vector<Column> m_columns;
    std::vector<std::vector<Cell>> m_rows;
};

/// Columns that standard output shows: COLUMNS of the environment, or those of its terminal; Unlimited when it is a
/// pipe or a file.
std::size_t OutputWidth();

}  // namespace Nimbrel2::Tool

#endif
