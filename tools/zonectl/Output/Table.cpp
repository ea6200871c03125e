#include "Output/Table.h"

#include <algorithm>
#include <glib.h>
#include <utility>

namespace Zonectl {

namespace {

constexpr std::size_t GAP = 2;

/// Characters, not bytes: names may hold any letters.
[[nodiscard]] std::size_t widthOf(const std::string& text)
{
    return static_cast<std::size_t>(g_utf8_strlen(text.c_str(), -1));
}

[[nodiscard]] std::string renderRow(const std::vector<Cell>& row, const std::vector<std::size_t>& widths,
                                    const Style& style)
{
    std::string line;
    std::size_t owed = 0; // blanks are written only when something follows them
    for (std::size_t i = 0; i < row.size(); ++i) {
        if (!row[i].text.empty()) {
            line += std::string(owed, ' ') + style.paint(row[i].tone, row[i].text);
            owed = 0;
        }
        owed += widths[i] - widthOf(row[i].text) + GAP;
    }
    return line + "\n";
}

} // namespace

Table::Table(std::vector<std::string> columnHeadings) : headings(std::move(columnHeadings)) {}

void Table::add(std::vector<Cell> row)
{
    for (Cell& cell : row) {
        cell.text = printable(cell.text);
    }
    row.resize(headings.size());
    rows.push_back(std::move(row));
}

std::string Table::render(const Style& style) const
{
    std::vector<std::size_t> widths;
    std::vector<Cell> top;
    for (const std::string& heading : headings) {
        widths.push_back(widthOf(heading));
        top.push_back({heading, Tone::Muted});
    }
    for (const std::vector<Cell>& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], widthOf(row[i].text));
        }
    }
    std::string text = renderRow(top, widths, style);
    for (const std::vector<Cell>& row : rows) {
        text += renderRow(row, widths, style);
    }
    return text;
}

} // namespace Zonectl
