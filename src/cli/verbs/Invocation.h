#pragma once

#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "cli/output/HeldLog.h"
#include "cli/output/Output.h"
#include "cli/verbs/Failure.h"
#include "session/Session.h"

namespace tarnwell::host {
class ProgramContext;
}

namespace tarnwell::cli {

/// The options that stand before every verb.
struct GlobalOptions {
    std::optional<std::string> storage;
    bool json = false;
    bool verbose = false;
    bool local = false;  ///< the provider in this process, whatever runs elsewhere
};

/// One run of the program: its options, where it writes, and the session, which is opened when a verb first asks for
/// it.
class Invocation {
public:
    Invocation(GlobalOptions options, Output& output);
    ~Invocation();

    bool json() const { return options_.json; }
    const GlobalOptions& options() const { return options_; }
    Output& output() { return output_; }
    log::Log& log();
    /// For a run that stays: nothing is held back.
    log::Log& serviceLog();
    /// Ready for requests. Fails with a sentence that needs no further words.
    std::expected<session::Session*, Failure> session();
    /// The run is about to end: requests that take long fail soon, with ECANCELED. Any thread, once there is a
    /// session.
    void giveUp();
    /// Log lines with this text say nothing to a person who runs this verb.
    void ignoreInLog(std::string text) { held_.ignore(std::move(text)); }
    /// Log lines that were kept back and are worth showing if the run succeeded.
    std::vector<std::string> heldLines() { return held_.take(); }

private:
    /// Decides where the provider is.
    std::expected<void, Failure> openSession();

    GlobalOptions options_;
    Output& output_;
    HeldLog held_;
    /// Set where the person asked to see the log as it is written.
    std::unique_ptr<log::Log> direct_;
    /// Where the provider is loaded in this process.
    std::unique_ptr<host::ProgramContext> context_;
    std::unique_ptr<session::Session> session_;
    std::function<void()> giveUp_;
};

}  // namespace tarnwell::cli
