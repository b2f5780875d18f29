// SPDX-License-Identifier: Apache-2.0
// Lays out aligned columns. Main thread only; no lock.
#include "tools/nimbrel/Table.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

#include "tools/nimbrel/Text.h"

namespace Nimbrel2::Tool {
namespace {

constexpr std::size_t kSmallestWidth = 80;
constexpr std::size_t kSmallestColumn = 8;
const std::string kGap = "  ";

}  // namespace

void Table::AddColumn(const std::string& header, Align align, Width width) {
    m_columns.push_back({header, align, width});
}

void Table::AddRow(const std::vector<std::string>& cells) {
    std::vector<std::string> shown;
    for (const std::string& cell : cells) shown.push_back(ForTerminal(cell));
    shown.resize(m_columns.size());
    m_rows.push_back(std::move(shown));
}

std::vector<std::size_t> Table::ColumnWidths(std::size_t width) const {
    std::vector<std::size_t> widths;
    std::size_t total = 0;
    for (std::size_t i = 0; i < m_columns.size(); ++i) {
        std::size_t widest = DisplayWidth(m_columns[i].header);
        for (const auto& row : m_rows) widest = std::max(widest, DisplayWidth(row[i]));
        widths.push_back(widest);
        total += widest + (i == 0 ? 0 : kGap.size());
    }
    while (total > width) {
        std::size_t* widest = nullptr;
        for (std::size_t i = 0; i < m_columns.size(); ++i) {
            const bool mayGive = m_columns[i].width == Width::Giving && widths[i] > kSmallestColumn;
            if (mayGive && (widest == nullptr || widths[i] > *widest)) widest = &widths[i];
        }
        if (widest == nullptr) break;
        --*widest;
        --total;
    }
    return widths;
}

std::string Table::RenderLine(const std::vector<std::string>& cells, const std::vector<std::size_t>& widths) const {
    std::string line;
    for (std::size_t i = 0; i < m_columns.size(); ++i) {
        const std::string cell = CutToWidth(cells[i], widths[i]);
        const std::string padding(widths[i] - DisplayWidth(cell), ' ');
        if (i != 0) line += kGap;
        line += m_columns[i].align == Align::Right ? padding + cell : cell + padding;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return line + "\n";
}

std::string Table::Render(std::size_t width) const {
    const std::vector<std::size_t> widths = ColumnWidths(width);
    std::vector<std::string> headers;
    for (const Column& column : m_columns) headers.push_back(column.header);
    std::string text = RenderLine(headers, widths);
    for (const auto& row : m_rows) text += RenderLine(row, widths);
    return text;
}

std::size_t OutputWidth() {
    winsize size{};
    const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0;
    return known ? std::max<std::size_t>(size.ws_col, kSmallestWidth) : kSmallestWidth;
}

}  // namespace Nimbrel2::Tool
