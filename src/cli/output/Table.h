#pragma once

#include <string>
#include <vector>

#include "cli/output/Output.h"

namespace tarnwell::cli {

/// Lines of cells, aligned by what they take on a terminal. The last column is never padded.
class Table {
public:
    enum class Align { left, right };
    struct Column {
        std::string title;
        Align align = Align::left;
    };
    struct Cell {
        std::string text;  ///< as from `toDisplay`
        Style style = Style::plain;
        /// Follows the text without being aligned; for the last column.
        std::string suffix = {};
        Style suffixStyle = Style::dim;
    };

    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}
    /// As many cells as there are columns.
    void add(std::vector<Cell> row) { rows_.push_back(std::move(row)); }
    /// Titles, then the rows; nothing at all where there is no row.
    void write(Output& output) const;

private:
    std::vector<Column> columns_;
    std::vector<std::vector<Cell>> rows_;
};

}  // namespace tarnwell::cli
