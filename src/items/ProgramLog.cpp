#include "items/ProgramLog.h"

#include <limits>
#include <utility>

#include "platform/base/Result.h"

namespace tarnwell::items {

namespace {

void writePrefixed(log::Log& sink, log::Level level, std::string_view prefix, std::string_view message) {
    sink.writeLazily(level, [&] {
        std::string text;
        text.reserve(prefix.size() + message.size());
        return text.append(prefix).append(message);
    });
}

}  // namespace

ProgramLog::ProgramLog(log::Log& sink, std::shared_ptr<dispatch::ThreadPool> pool, std::uint64_t firstSection)
    : sink_(sink),
      sectionQueue_(dispatch::SerialQueue::create(std::move(pool), "tarnwell.log-section")),
      sectionCounter_(firstSection) {}

void ProgramLog::error(std::string_view message) { writePrefixed(sink_, log::Level::error, "[ERROR] ", message); }

void ProgramLog::info(std::string_view message) { writePrefixed(sink_, log::Level::info, "[INFO] ", message); }

void ProgramLog::debug(std::string_view message) { writePrefixed(sink_, log::Level::debug, "[DEBUG] ", message); }

void ProgramLog::byExpectation(Expectation expectation, std::string_view message) {
    if (expectation == Expectation::expected)
        debug(message);
    else
        error(message);
}

std::uint64_t ProgramLog::nextSectionNumber() {
    return sectionQueue_->sync([this] {
        TARNWELL_CHECK(sectionCounter_ < std::numeric_limits<std::uint64_t>::max());
        return sectionCounter_++;
    });
}

LogSection::LogSection(ProgramLog& log, std::string_view title) : log_(log), number_(log.nextSectionNumber()) {
    log_.debug([&] { return "\u250F" + std::to_string(number_) + " " + std::string(title); });
}

LogSection::~LogSection() {
    log_.debug([&] { return "\u2517" + std::to_string(number_); });
}

std::string quoted(std::string_view text) {
    std::string result;
    result.reserve(text.size() + 2);
    return result.append("\"").append(text).append("\"");
}

}  // namespace tarnwell::items
