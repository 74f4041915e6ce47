#include "cli/output/Table.h"

#include <algorithm>

#include "cli/output/Text.h"

namespace tarnwell::cli {

void Table::write(Output& output) const {
    if (rows_.empty()) return;
    std::vector<std::size_t> widths;
    for (std::size_t column = 0; column < columns_.size(); ++column) {
        std::size_t width = displayWidth(columns_[column].title);
        for (const auto& row : rows_) width = std::max(width, displayWidth(row[column].text));
        widths.push_back(width);
    }
    const auto compose = [&](const std::vector<Cell>& row) {
        std::string line;
        for (std::size_t column = 0; column < columns_.size(); ++column) {
            const Cell& cell = row[column];
            const bool last = column + 1 == columns_.size();
            const std::string padding(widths[column] - displayWidth(cell.text), ' ');
            if (columns_[column].align == Align::right) line += padding;
            line += output.paint(cell.style, cell.text) + output.paint(cell.suffixStyle, cell.suffix);
            if (last) break;
            if (columns_[column].align == Align::left) line += padding;
            line += "  ";
        }
        return line;
    };
    std::vector<Cell> titles;
    for (const Column& column : columns_) titles.push_back({column.title, Style::dim});
    output.line(compose(titles));
    for (const auto& row : rows_) output.line(compose(row));
}

}  // namespace tarnwell::cli
