#pragma once

#include <expected>
#include <optional>
#include <string>

#include "platform/base/Result.h"

namespace tarnwell::cli {

/// What the program tells its caller when it ends.
enum class ExitStatus : int { done = 0, failed = 1, usage = 2, anchorExpired = 3 };

/// Why a verb could not do its work: one line for people that says what, which item, and what to do.
struct Failure {
    ExitStatus status = ExitStatus::failed;
    std::string message;
    /// What it was in the program's terms, for clients that want to know.
    std::optional<Error> cause = std::nullopt;
};

using Outcome = std::expected<void, Failure>;

/// A failure of an operation on an item: `what` is such as "cannot show", `item` the text that the person gave.
Failure failureOf(const std::string& what, const std::string& item, const Error& error);

/// A failure whose error already holds a whole sentence.
Failure failureOf(const Error& error);

}  // namespace tarnwell::cli
