// Columns for people. Widths count bytes: only the last column holds text that may be anything but ASCII.

#include "text_table.h"

#include <algorithm>

namespace orn_tool {

void TextTable::print(Output& output, std::size_t indent) const {
    std::vector<std::string> titles;
    for (const Column& column : m_columns)
        titles.push_back(column.title);
    const std::vector<std::size_t> columnWidths = widths();
    printRow(output, indent, columnWidths, titles);
    for (const auto& row : m_rows)
        printRow(output, indent, columnWidths, row);
}

std::vector<std::size_t> TextTable::widths() const {
    std::vector<std::size_t> result;
    for (const Column& column : m_columns)
        result.push_back(column.title.size());
    for (const auto& row : m_rows)
        for (std::size_t i = 0; i < row.size(); ++i)
            result[i] = std::max(result[i], row[i].size());
    return result;
}

void TextTable::printRow(Output& output, std::size_t indent, const std::vector<std::size_t>& widths,
                         const std::vector<std::string>& cells) const {
    output.putSpaces(indent);
    for (std::size_t i = 0; i < cells.size(); ++i) {
        const std::size_t padding = widths[i] - cells[i].size();
        const bool isRight = m_columns[i].align == Align::Right;
        const bool isLast = i + 1 == cells.size();
        if (isRight)
            output.putSpaces(padding);
        output.put(cells[i]);
        if (!isRight && !isLast)
            output.putSpaces(padding);
        if (!isLast)
            output.put("  ");
    }
    output.put('\n');
}

} // namespace orn_tool
