#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/log/Log.h"

namespace tarnwell::testing {

/// A log that keeps its messages.
class CapturingLog : public log::Log {
public:
    struct Line {
        log::Level level;
        std::string text;
        friend bool operator==(const Line&, const Line&) = default;
    };
    std::vector<Line> lines() const;
    /// The texts of one level, or of all.
    std::vector<std::string> texts() const;
    std::vector<std::string> texts(log::Level level) const;
    /// True when one message is exactly this text.
    bool contains(std::string_view text) const;
    void clear();

protected:
    void emit(log::Level level, std::string_view text) override;

private:
    mutable std::mutex mutex_;
    std::vector<Line> lines_;
};

}  // namespace tarnwell::testing
