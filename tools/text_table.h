// Columns for people.
#ifndef ORN_TOOLS_TEXT_TABLE_H
#define ORN_TOOLS_TEXT_TABLE_H

#include "output.h"

#include <string>
#include <vector>

namespace orn_tool {

/// Collects rows and prints them with columns as wide as their widest cell.
class TextTable {
public:
    enum class Align { Left, Right };
    struct Column {
        std::string title;
        Align align;
    };

    explicit TextTable(std::vector<Column> columns) : m_columns(std::move(columns)) {}

    void addRow(std::vector<std::string> cells) { m_rows.push_back(std::move(cells)); }
    bool isEmpty() const { return m_rows.empty(); }
    /// Every line starts with `indent` blanks. Nothing is printed behind the last cell.
    void print(Output& output, std::size_t indent) const;

private:
    std::vector<std::size_t> widths() const;
    void printRow(Output& output, std::size_t indent, const std::vector<std::size_t>& widths,
                  const std::vector<std::string>& cells) const;

    std::vector<Column> m_columns;
    std::vector<std::vector<std::string>> m_rows;
};

} // namespace orn_tool

#endif
