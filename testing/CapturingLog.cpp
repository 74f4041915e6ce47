#include "testing/CapturingLog.h"

#include <algorithm>

namespace tarnwell::testing {

std::vector<CapturingLog::Line> CapturingLog::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

std::vector<std::string> CapturingLog::texts() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> result;
    for (const Line& line : lines_) result.push_back(line.text);
    return result;
}

std::vector<std::string> CapturingLog::texts(log::Level level) const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> result;
    for (const Line& line : lines_)
        if (line.level == level) result.push_back(line.text);
    return result;
}

bool CapturingLog::contains(std::string_view text) const {
    std::lock_guard lock(mutex_);
    return std::ranges::any_of(lines_, [&](const Line& line) { return line.text == text; });
}

void CapturingLog::clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
}

void CapturingLog::emit(log::Level level, std::string_view text) {
    std::lock_guard lock(mutex_);
    lines_.push_back({level, std::string(text)});
}

}  // namespace tarnwell::testing
