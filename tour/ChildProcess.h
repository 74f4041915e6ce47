#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/base/Descriptor.h"
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

/// A program that goes on until it is asked to end, whose lines are read as they come. One thread at a time.
class FollowedProgram {
public:
    static Result<FollowedProgram> start(const std::vector<std::string>& command, const EnvironmentChanges& changes);
    FollowedProgram(FollowedProgram&& other) noexcept
        : process_(std::exchange(other.process_, std::nullopt)),
          output_(std::move(other.output_)),
          read_(std::move(other.read_)) {}
    FollowedProgram& operator=(FollowedProgram&&) = delete;
    /// Asks it to end (SIGTERM) and waits for that.
    ~FollowedProgram();

    /// The next line without its end; nothing when it ended, or nothing came for that long.
    std::optional<std::string> line(std::chrono::milliseconds patience);
    /// Asks it to end and waits; its exit status as in Outcome.
    int end();

private:
    FollowedProgram(int process, Descriptor output) : process_(process), output_(std::move(output)) {}
    std::optional<int> process_;
    Descriptor output_;
    std::string read_;
};

}  // namespace tarnwell::tour
