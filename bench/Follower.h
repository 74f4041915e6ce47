#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "bench/Measure.h"

namespace tarnwell::bench {

/// A program that follows what changes in a person's documents and says what changed since a position. It answers in
/// text, a record with name, size and modification time for each object, which is all read before it is looked at.
class Follower {
public:
    virtual ~Follower() = default;
    virtual const char* name() const = 0;
    /// Starts the program on the state that its last run left.
    virtual Outcome<void> start() = 0;
    virtual Outcome<void> stop() = 0;
    /// Returns when everything is followed.
    virtual Outcome<void> waitUntilLive() = 0;
    virtual Outcome<std::string> position() = 0;
    /// The whole answer.
    virtual Outcome<std::string> changesSince(const std::string& position) = 0;
    virtual std::uint64_t residentKilobytes() const = 0;

    /// What an answer says.
    struct Told {
        std::uint64_t objects = 0;
        bool isFresh = false;  ///< it cannot say what changed: everything is to be looked at anew
        std::string position;
    };
    virtual Outcome<Told> read(const std::string& answer) const = 0;
};

/// This program's services in a process of their own, on the person whose home that is.
std::unique_ptr<Follower> ourFollower(const std::string& program, const std::string& home);
/// The program watchman on the documents in that home, its state and socket in the folder `private` there.
std::unique_ptr<Follower> watchmanFollower(const std::string& home);

}  // namespace tarnwell::bench
