#pragma once

#include <atomic>
#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>

namespace tarnwell::log {

enum class Level : std::uint8_t { debug = 0, info = 1, error = 2, off = 3 };

/// Where messages go. Any thread may call it. `isEnabled` is a single load, so a message that is off costs nothing
/// when it is composed inside the callable that `debug` and its like accept.
class Log {
public:
    virtual ~Log() = default;

    bool isEnabled(Level level) const { return level >= threshold_.load(std::memory_order_relaxed); }
    void setThreshold(Level level) { threshold_.store(level, std::memory_order_relaxed); }

    /// Writes the text as it stands, as one message, if its level is enabled.
    void write(Level level, std::string_view text) {
        if (isEnabled(level)) emit(level, text);
    }
    /// Composes and writes the text only if its level is enabled.
    template <std::invocable F>
    void writeLazily(Level level, F&& compose) {
        if (isEnabled(level)) emit(level, compose());
    }

protected:
    virtual void emit(Level level, std::string_view text) = 0;

private:
    std::atomic<Level> threshold_{Level::debug};
};

}  // namespace tarnwell::log
