#include "tests/mirror/Client.h"

#include <cstdlib>

#include "hostframework/HostError.h"
#include "tests/mirror/Layout.h"

namespace tarnwell::mirror {

Client::Outcome Client::refused(const Message& answer) {
    domain_ = std::atoi(answer.at(1).c_str());
    code_ = std::atoi(answer.at(2).c_str());
    problem_ = answer.at(3);
    const bool isExpired = wasRefusedWith(static_cast<int>(ErrorDomain::host), hostframework::kSyncAnchorExpired);
    return isExpired ? Outcome::expired : Outcome::refused;
}

bool Client::add(HostedDevice& device, const std::string& container) {
    const Message answer = device.ask({"list", container});
    if (answer.at(0) != "ok") {
        refused(answer);
        return false;
    }
    for (std::size_t at = 1; at < answer.size();) {
        const Identified item = takeItem(answer, at);
        mirror_.update(item.identifier, item.kept);
    }
    return true;
}

Client::Outcome Client::begin(HostedDevice& device) {
    mirror_.clear();
    told_.clear();
    isInTheMiddle_ = false;
    const Message anchor = device.ask({"anchor", container_});
    if (anchor.at(0) != "ok") return refused(anchor);
    anchor_ = anchor.at(1);
    if (!add(device, container_)) return Outcome::refused;
    if (container_.starts_with("fid=")) return Outcome::caughtUp;
    // A trash folder is hidden, so that no listing leads to it.
    for (const RootFolder& root : kRoots) {
        const Message trash = device.ask({"item", device.path(std::string(root.path) + "/.Trash")});
        if (trash.size() == 1) continue;
        std::size_t at = 1;
        const Identified item = takeItem(trash, at);
        mirror_.update(item.identifier, item.kept);
        if (item.kept.isFolder && !add(device, item.identifier)) return Outcome::refused;
    }
    return Outcome::caughtUp;
}

Client::Outcome Client::step(HostedDevice& device) {
    told_.clear();
    const Message answer = device.ask(request());
    if (answer.at(0) != "ok") return refused(answer);
    anchor_ = answer.at(1);
    isInTheMiddle_ = !answer.at(2).empty();
    for (std::size_t at = 3; at < answer.size();) {
        if (answer.at(at++) == "-") {
            told_.push_back({answer.at(at++)});
        } else {
            Identified item = takeItem(answer, at);
            told_.push_back({std::move(item.identifier), std::move(item.kept)});
        }
        mirror_.apply(told_.back());
    }
    return isInTheMiddle_ ? Outcome::more : Outcome::caughtUp;
}

}  // namespace tarnwell::mirror
