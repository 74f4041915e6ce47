#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tests/mirror/HostedDevice.h"
#include "tests/mirror/Mirror.h"

namespace tarnwell::mirror {

/// Somebody who lists a container once and then only follows it by its anchors, one batch at a time.
class Client {
public:
    explicit Client(std::string container) : container_(std::move(container)) {}

    /// How a request ended. `expired`: the anchor was, so that it has to begin again; `refused`: the container is not
    /// there, or something else, which `problem` says.
    enum class Outcome { more, caughtUp, expired, refused };

    /// Takes an anchor, then lists everything.
    Outcome begin(HostedDevice& device);
    /// One request, whose reports are applied.
    Outcome step(HostedDevice& device);
    /// The message with which a step asks.
    Message request() const { return {"changes", container_, anchor_}; }

    const std::string& container() const { return container_; }
    const Mirror& mirror() const { return mirror_; }
    const std::string& problem() const { return problem_; }
    /// True where its anchor is one of a batch after which more comes.
    bool isInTheMiddle() const { return isInTheMiddle_; }
    /// What the last step told.
    const std::vector<Report>& told() const { return told_; }
    bool wasRefusedWith(int domain, int code) const { return domain_ == domain && code_ == code; }

private:
    Outcome refused(const Message& answer);
    bool add(HostedDevice& device, const std::string& container);

    std::string container_;
    std::string anchor_;
    Mirror mirror_;
    std::string problem_;
    int domain_ = 0, code_ = 0;
    bool isInTheMiddle_ = false;
    std::vector<Report> told_;
};

}  // namespace tarnwell::mirror
