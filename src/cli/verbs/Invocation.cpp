#include "cli/verbs/Invocation.h"

#include <cstdlib>

#include "cli/verbs/RunningService.h"
#include "host/LocalSession.h"
#include "host/ProgramContext.h"
#include "host/Settings.h"
#include "platform/log/ProgramLogSink.h"

namespace tarnwell::cli {

Invocation::Invocation(GlobalOptions options, Output& output) : options_(std::move(options)), output_(output) {
    const bool wantsLog = options_.verbose || std::getenv("TARNWELL_LOG") != nullptr;
    if (!wantsLog) return;
    const auto level = options_.verbose ? log::Level::debug : log::levelFromEnvironment(log::Level::error);
    direct_ = log::makeProgramLog(host::ProgramContext::kLogCategory, level);
}

Invocation::~Invocation() = default;

log::Log& Invocation::log() { return direct_ ? *direct_ : held_; }

log::Log& Invocation::serviceLog() {
    if (!direct_) direct_ = log::makeProgramLog(items::ProgramLog::kCategory, log::Level::error);
    return *direct_;
}

std::expected<session::Session*, Failure> Invocation::session() {
    if (!session_) {
        if (auto opened = openSession(); !opened) return std::unexpected(opened.error());
    }
    return session_.get();
}

std::expected<void, Failure> Invocation::openSession() {
    const auto settings = host::Settings::fromEnvironment(options_.storage);
    if (!settings) return std::unexpected(failureOf(settings.error()));
    if (!options_.local) {
        auto service = connectToService(*settings);
        if (!service) return std::unexpected(service.error());
        if (*service != nullptr) {
            giveUp_ = [raw = service->get()] { raw->giveUp(); };
            session_ = std::move(*service);
            return {};
        }
    }
    auto context = host::ProgramContext::create(*settings, log());
    if (!context) return std::unexpected(failureOf(context.error()));
    context_ = std::move(*context);
    context_->prepareForRequests();
    giveUp_ = [raw = context_.get()] { raw->giveUp(); };
    session_ = std::make_unique<host::LocalSession>(*context_);
    return {};
}

void Invocation::giveUp() {
    if (giveUp_) giveUp_();
}

}  // namespace tarnwell::cli
