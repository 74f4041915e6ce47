#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Result.h"

namespace tarnwell::tour {

/// Variables to set (a text) or to unset (nothing); the others stay as they are.
using EnvironmentChanges = std::map<std::string, std::optional<std::string>>;

struct Outcome {
    int status = 0;      ///< exit status; 128 + the signal's number for one that a signal ended
    std::string output;  ///< standard output, if it was captured
};

enum class Output { shown, captured, discarded };

/// Runs a program (found by PATH if it has no slash) and waits for it. Standard error is this process's, except that
/// `discarded` discards both. ENOENT where there is no such program.
Result<Outcome> run(const std::vector<std::string>& command, const EnvironmentChanges& changes, Output output);

}  // namespace tarnwell::tour
