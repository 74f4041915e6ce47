#pragma once

#include <concepts>
#include <memory>
#include <string>
#include <string_view>

#include "platform/dispatch/SerialQueue.h"
#include "platform/dispatch/ThreadPool.h"
#include "platform/log/Log.h"

namespace tarnwell::items {

/// The program log, category "tarnwell-storage". Messages are composed first, then written as "[ERROR] …", "[INFO] …"
/// or "[DEBUG] …"; `raw` writes a text as it stands. Given a callable, a message whose level is off is never composed.
class ProgramLog {
public:
    static constexpr const char* kCategory = "tarnwell-storage";
    /// `firstSection` is the number of the first section.
    ProgramLog(log::Log& sink, std::shared_ptr<dispatch::ThreadPool> pool, std::uint64_t firstSection = 0);

    void error(std::string_view message);
    void info(std::string_view message);
    void debug(std::string_view message);
    template <std::invocable F>
    void debug(F&& compose) {
        if (sink_.isEnabled(log::Level::debug)) debug(std::string_view(std::string(compose())));
    }
    /// At the debug level when `expected`, else at the error level.
    enum class Expectation { expected, unexpected };
    void byExpectation(Expectation expectation, std::string_view message);
    template <std::invocable F>
    void byExpectation(Expectation expectation, F&& compose) {
        if (expectation == Expectation::unexpected || debugEnabled())
            byExpectation(expectation, std::string_view(std::string(compose())));
    }
    void raw(log::Level level, std::string_view message) { sink_.write(level, message); }
    bool debugEnabled() const { return sink_.isEnabled(log::Level::debug); }

    /// Takes the next section number, on the section queue. Stops the process when there is none left.
    std::uint64_t nextSectionNumber();
    /// "tarnwell.log-section".
    const std::shared_ptr<dispatch::SerialQueue>& sectionQueue() const { return sectionQueue_; }

private:
    log::Log& sink_;
    std::shared_ptr<dispatch::SerialQueue> sectionQueue_;
    std::uint64_t sectionCounter_;
};

/// Brackets an operation: "[DEBUG] ┏0 title" when made, "[DEBUG] ┗0" when destroyed.
class LogSection {
public:
    LogSection(ProgramLog& log, std::string_view title);
    ~LogSection();
    LogSection(const LogSection&) = delete;
    LogSection& operator=(const LogSection&) = delete;

private:
    ProgramLog& log_;
    std::uint64_t number_;
};

/// `text` in double quotation marks. The overloads for strings keep argument-dependent lookup from preferring
/// std::quoted where <iomanip> is included.
std::string quoted(std::string_view text);
inline std::string quoted(const std::string& text) { return quoted(std::string_view(text)); }
inline std::string quoted(std::string& text) { return quoted(std::string_view(text)); }
inline std::string quoted(const char* text) { return quoted(std::string_view(text)); }

}  // namespace tarnwell::items
