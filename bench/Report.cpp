#include "bench/Report.h"

#include <algorithm>
#include <cstdio>

namespace tarnwell::bench {

std::string fixed(double value, int digits) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", digits, value);
    return text;
}

double microsecondsEach(double seconds, std::uint64_t count) {
    return count == 0 ? 0 : seconds * 1e6 / static_cast<double>(count);
}

void Report::add(const std::string& title, const Cells& cells) {
    auto table = std::ranges::find(tables_, title, &Table::title);
    if (table == tables_.end()) table = tables_.insert(tables_.end(), Table{title, {}});
    table->rows.push_back(cells);
}

void Report::addComparison(const std::string& what, std::uint64_t count, const Cost& ours, const std::string& otherName,
                           const Cost& other) {
    add("Microseconds each, medians", {{"what", what},
                                       {"count", std::to_string(count)},
                                       {"ours", fixed(microsecondsEach(ours.clock, count), 2)},
                                       {"other", fixed(microsecondsEach(other.clock, count), 2)},
                                       {"ours/other", fixed(ours.clock / other.clock, 2)},
                                       {"in processor time", fixed(ours.processor / other.processor, 2)},
                                       {"the other is", otherName}});
}

std::string Report::text() const {
    std::string text;
    for (const Table& table : tables_) {
        std::vector<std::size_t> widths;
        for (const auto& [heading, ignored] : table.rows.front()) widths.push_back(heading.size());
        for (const Cells& row : table.rows) {
            for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].second.size());
        }
        // The first and the last column hold words, those between them numbers.
        const auto line = [&](const Cells& row, auto&& textOf) {
            for (std::size_t i = 0; i < row.size(); ++i) {
                const std::string& cell = textOf(row[i]);
                const std::string fill(widths[i] - cell.size(), ' ');
                text += "  ";
                text += i == 0 ? cell + fill : i + 1 == row.size() ? cell : fill + cell;
            }
            text += '\n';
        };
        text += '\n' + table.title + '\n';
        line(table.rows.front(), [](const auto& cell) -> const std::string& { return cell.first; });
        for (const Cells& row : table.rows)
            line(row, [](const auto& cell) -> const std::string& { return cell.second; });
    }
    return text;
}

}  // namespace tarnwell::bench
