// SPDX-License-Identifier: Apache-2.0
// Aligned columns for people. Main thread only, as Text.h; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_TABLE_H
#define NIMBREL2_TOOLS_NIMBREL_TABLE_H

#include <cstddef>
#include <string>
#include <vector>

namespace Nimbrel2::Tool {

class Table {
public:
    enum class Align { Left, Right };
    enum class Width {
        Full,    ///< Never cut.
        Giving,  ///< Cut when the table is too wide, the widest column first.
    };

    void AddColumn(const std::string& header, Align align = Align::Left, Width width = Width::Full);

    /// As many cells as columns; texts as they come, ForTerminal is applied here.
    void AddRow(const std::vector<std::string>& cells);

    /// The header and the rows, a line each, within so many columns as far as the giving columns allow.
    std::string Render(std::size_t width) const;

private:
    struct Column {
        std::string header;
        Align align;
        Width width;
    };

    std::vector<std::size_t> ColumnWidths(std::size_t width) const;
    std::string RenderLine(const std::vector<std::string>& cells, const std::vector<std::size_t>& widths) const;

    std::vector<Column> m_columns;
    std::vector<std::vector<std::string>> m_rows;
};

/// Columns that standard output shows: those of its terminal, 80 when it is none, and never fewer than 80.
std::size_t OutputWidth();

}  // namespace Nimbrel2::Tool

#endif
