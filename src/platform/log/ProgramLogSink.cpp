#include "platform/log/ProgramLogSink.h"

#include <cstdlib>
#include <string_view>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include <spdlog/logger.h>
#include <spdlog/sinks/ansicolor_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/systemd_sink.h>

#include "platform/log/LineText.h"

namespace tarnwell::log {
namespace {

struct LevelName {
    std::string_view name;
    Level level;
};

constexpr LevelName kLevelNames[] = {
    {"debug", Level::debug}, {"info", Level::info}, {"error", Level::error}, {"off", Level::off}};

spdlog::level::level_enum sinkLevel(Level level) {
    switch (level) {
        case Level::debug:
            return spdlog::level::debug;
        case Level::info:
            return spdlog::level::info;
        case Level::error:
        case Level::off:
            break;
    }
    return spdlog::level::err;
}

/// True when standard error is the stream that systemd connected to the journal. The variable alone proves nothing: it
/// is inherited by programs whose standard error was redirected since.
bool standardErrorIsJournal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat info{};
    if (!stream || ::fstat(STDERR_FILENO, &info) != 0) return false;
    return stream == std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino);
}

bool wantsColor() {
    const char* refused = std::getenv("NO_COLOR");
    return ::isatty(STDERR_FILENO) == 1 && !(refused && *refused);
}

spdlog::sink_ptr makeSink() {
    if (standardErrorIsJournal()) return std::make_shared<spdlog::sinks::systemd_sink_mt>();
    if (wantsColor()) return std::make_shared<spdlog::sinks::ansicolor_stderr_sink_mt>();
    return std::make_shared<spdlog::sinks::stderr_sink_mt>();
}

class ProgramLogSink : public Log {
public:
    ProgramLogSink(std::string category, Level threshold) : logger_(std::move(category), makeSink()) {
        setThreshold(threshold);
        // Our threshold is the only one.
        logger_.set_level(spdlog::level::trace);
        logger_.flush_on(spdlog::level::trace);
        logger_.set_pattern("%Y-%m-%dT%H:%M:%S.%f%z %n[%P]: %^%v%$");
        // A log that can't be written has nobody left to tell.
        logger_.set_error_handler([](const std::string&) {});
    }

protected:
    void emit(Level level, std::string_view text) override { logger_.log(sinkLevel(level), asOneLine(text)); }

private:
    spdlog::logger logger_;
};

}  // namespace

std::unique_ptr<Log> makeProgramLog(std::string category, Level threshold) {
    return std::make_unique<ProgramLogSink>(std::move(category), threshold);
}

Level levelFromEnvironment(Level fallback) {
    const char* value = std::getenv("TARNWELL_LOG");
    if (!value) return fallback;
    for (const LevelName& row : kLevelNames)
        if (row.name == value) return row.level;
    return fallback;
}

}  // namespace tarnwell::log
