#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bus/server/Methods.h"
#include "bus/server/Pace.h"
#include "bus/server/Workers.h"
#include "session/Session.h"

struct sd_bus_message;

namespace tarnwell::bus {

/// A container that a client watches. The watch itself belongs to the client's lane.
struct WatchEntry {
    std::string container;
    std::unique_ptr<session::Watch> watch;
    /// A signal was sent, and the client has not asked anything since.
    std::atomic<bool> isSignalled = false;
};

/// An operation that a client started, until it has fetched the result.
struct Job {
    std::string path;
    std::string owner;
    std::shared_ptr<session::JobControl> control;
    std::optional<Answer> outcome;
    sd_bus_message* waiting = nullptr;  ///< call of Result
};

/// One connection that has asked something. Belongs to the connection's thread but for what says otherwise.
struct Client {
    enum class State { asking, admitted, refused };
    State state = State::asking;
    std::optional<Error> refusal;
    /// Set before the first request is on the lane.
    std::shared_ptr<session::Session> session;
    Workers::LanePtr lane = Workers::makeLane(), jobLane = Workers::makeLane();
    /// What waits for it to be admitted.
    std::deque<std::move_only_function<void()>> waiting;
    std::size_t requests = 0, requestBytes = 0;  ///< not answered yet
    /// Set from any thread when it has gone.
    std::shared_ptr<std::atomic<bool>> hasGone = std::make_shared<std::atomic<bool>>(false);
    Pacing pacing;
    std::map<std::string, std::shared_ptr<WatchEntry>> watches;
    std::map<std::string, std::shared_ptr<Job>> jobs;
};

}  // namespace tarnwell::bus
