// SPDX-License-Identifier: Apache-2.0
// Lays out aligned columns. Main thread only; no lock.
#include "tools/nimbrel/Table.h"

#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "tools/nimbrel/Text.h"

namespace Nimbrel2::Tool {
namespace {

constexpr std::size_t SmallestColumn = 8;
const std::string Gap = "  ";

// A positive number in the environment; 0 when there is none.
std::size_t ColumnsOfEnvironment() {
    const char* text = secure_getenv("COLUMNS");
    if (text == nullptr) {
        return 0;
    }
    std::size_t columns = 0;
    const char* last = text + std::strlen(text);
    const auto [end, error] = std::from_chars(text, last, columns);
    return error == std::errc() && end == last ? columns : 0;
}

}  // namespace

void Table::AddColumn(const std::string& header, Align align, Width width) {
    m_columns.push_back({header, align, width});
}

void Table::AddRow(const std::vector<Cell>& cells) {
    std::vector<Cell> shown;
    for (const Cell& cell : cells) {
        shown.emplace_back(ForTerminal(cell.text), cell.colour);
    }
    shown.resize(m_columns.size(), Cell(""));
    m_rows.push_back(std::move(shown));
}

std::vector<std::size_t> Table::ColumnWidths(std::size_t width, std::size_t* total) const {
    std::vector<std::size_t> widths;
    *total = 0;
    for (std::size_t i = 0; i < m_columns.size(); ++i) {
        std::size_t widest = DisplayWidth(m_columns[i].header);
        for (const auto& row : m_rows) {
            widest = std::max(widest, DisplayWidth(row[i].text));
        }
        widths.push_back(widest);
        *total += widest + (i == 0 ? 0 : Gap.size());
    }
    while (*total > width) {
        std::size_t* widest = nullptr;
        for (std::size_t i = 0; i < m_columns.size(); ++i) {
            const bool canShrink = m_columns[i].width == Width::Flexible && widths[i] > SmallestColumn;
            if (canShrink && (widest == nullptr || widths[i] > *widest)) {
                widest = &widths[i];
            }
        }
        if (widest == nullptr) {
            break;
        }
        --*widest;
        --*total;
    }
    return widths;
}

std::string Table::RenderLine(const std::vector<Cell>& cells, const std::vector<std::size_t>& widths,
                              bool coloured) const {
    std::string line;
    std::string gap;  // written in front of the next cell that is not empty, so that lines have no blanks at the end
    for (std::size_t i = 0; i < m_columns.size(); ++i) {
        const std::string cell = CutToWidth(cells[i].text, widths[i]);
        const std::string padding(widths[i] - DisplayWidth(cell), ' ');
        if (i != 0) {
            gap += Gap;
        }
        if (cell.empty()) {
            gap += padding;
            continue;
        }
        const bool right = m_columns[i].align == Align::Right;
        line += gap + (right ? padding : "") + Paint(cell, cells[i].colour, coloured);
        gap = right ? "" : padding;
    }
    return line + "\n";
}

bool Table::Fits(std::size_t width) const {
    std::size_t total = 0;
    ColumnWidths(width, &total);
    return total <= width;
}

std::string Table::Render(std::size_t width, bool coloured) const {
    std::size_t total = 0;
    const std::vector<std::size_t> widths = ColumnWidths(width, &total);
    std::vector<Cell> headers;
    for (const Column& column : m_columns) {
        headers.emplace_back(column.header, Colour::Bold);
    }
    std::string text = RenderLine(headers, widths, coloured);
    for (const auto& row : m_rows) {
        text += RenderLine(row, widths, coloured);
    }
    return text;
}

std::size_t OutputWidth() {
    if (const std::size_t columns = ColumnsOfEnvironment()) {
        return columns;
    }
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) {
        return Unlimited;
    }
    return size.ws_col;
}

}  // namespace Nimbrel2::Tool
