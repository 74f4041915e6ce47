#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "bench/Measure.h"

namespace tarnwell::bench {

/// The tables for people, in the order in which their first rows came.
class Report {
public:
    using Cells = std::vector<std::pair<std::string, std::string>>;  ///< heading and text

    /// Adds a row to the table of that title. Rows of one table have the same headings.
    void add(const std::string& title, const Cells& cells);
    /// The rows that most benchmarks give: what, how many, microseconds for one, and the ratio to another way of doing
    /// it.
    void addComparison(const std::string& what, std::uint64_t count, const Cost& ours, const std::string& otherName,
                       const Cost& other);
    /// Notes that something went wrong.
    void fail(const std::string& what) { failures_.push_back(what); }

    const std::vector<std::string>& failures() const { return failures_; }
    /// All tables, aligned.
    std::string text() const;

private:
    struct Table {
        std::string title;
        std::vector<Cells> rows;
    };
    std::vector<Table> tables_;
    std::vector<std::string> failures_;
};

/// A number with that many digits after the point.
std::string fixed(double value, int digits);
/// Microseconds for one of `count`.
double microsecondsEach(double seconds, std::uint64_t count);

}  // namespace tarnwell::bench
