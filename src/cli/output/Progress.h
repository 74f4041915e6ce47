#pragma once

#include <chrono>
#include <string_view>

namespace tarnwell::cli {

/// One line on standard error, if that is a terminal, that tells what long work has reached; gone when the work is
/// done. Nothing is shown for work that takes less than half a second.
class Progress {
public:
    Progress();
    ~Progress() { clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    /// Shows the text, at most ten times a second.
    void show(std::string_view text);
    void clear();

private:
    bool enabled_;
    bool shown_ = false;
    std::chrono::steady_clock::time_point next_;
};

}  // namespace tarnwell::cli
