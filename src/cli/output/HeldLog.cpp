#include "cli/output/HeldLog.h"

#include <utility>

namespace tarnwell::cli {

std::vector<std::string> HeldLog::take() {
    const std::lock_guard lock(mutex_);
    auto lines = std::exchange(lines_, {});
    if (const auto dropped = std::exchange(dropped_, 0); dropped > 0) {
        lines.push_back("and " + std::to_string(dropped) + " further messages; run with -v to see them");
    }
    return lines;
}

void HeldLog::ignore(std::string text) {
    const std::lock_guard lock(mutex_);
    ignored_.push_back(std::move(text));
}

void HeldLog::emit(log::Level /*level*/, std::string_view text) {
    const std::lock_guard lock(mutex_);
    for (const std::string& ignored : ignored_) {
        if (text.find(ignored) != std::string_view::npos) return;
    }
    if (lines_.size() < kMaxLines) {
        lines_.emplace_back(text);
    } else {
        ++dropped_;
    }
}

}  // namespace tarnwell::cli
