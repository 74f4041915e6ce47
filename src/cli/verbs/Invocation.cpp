#include "cli/verbs/Invocation.h"

#include <cstdlib>

#include "items/ProgramLog.h"
#include "platform/log/ProgramLogSink.h"

namespace tarnwell::cli {

Invocation::Invocation(GlobalOptions options, Output& output) : options_(std::move(options)), output_(output) {
    const bool wantsLog = options_.verbose || std::getenv("TARNWELL_LOG") != nullptr;
    if (!wantsLog) return;
    const auto level = options_.verbose ? log::Level::debug : log::levelFromEnvironment(log::Level::error);
    direct_ = log::makeProgramLog(items::ProgramLog::kCategory, level);
}

Invocation::~Invocation() = default;

log::Log& Invocation::log() { return direct_ ? *direct_ : held_; }

std::expected<host::ProgramContext*, Failure> Invocation::context() {
    if (context_) return context_.get();
    const auto settings = host::Settings::fromEnvironment(options_.storage);
    if (!settings) return std::unexpected(failureOf(settings.error()));
    auto context = host::ProgramContext::create(*settings, log());
    if (!context) return std::unexpected(failureOf(context.error()));
    context_ = std::move(*context);
    context_->prepareForRequests();
    return context_.get();
}

}  // namespace tarnwell::cli
