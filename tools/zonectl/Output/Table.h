#pragma once

#include "Output/Output.h"

#include <string>
#include <vector>

namespace Zonectl {

/// One cell: its text and what it means.
struct Cell
{
    std::string text;
    Tone tone = Tone::Plain;
};

/// Rows of text in columns as wide as their widest cell.
class Table
{
public:
    explicit Table(std::vector<std::string> columnHeadings);
    /// Adds a row; it has as many cells as there are headings.
    void add(std::vector<Cell> row);
    /// The whole table, headings first, each line ended by a new-line and free of trailing blanks.
    /// Cells are made printable first.
    [[nodiscard]] std::string render(const Style& style) const;

private:
    std::vector<std::string> headings;
    std::vector<std::vector<Cell>> rows;
};

} // namespace Zonectl
