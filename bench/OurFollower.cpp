#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <nlohmann/json.hpp>
#include <thread>

#include "bench/Follower.h"
#include "bench/ServerProcess.h"
#include "bench/Suite.h"
#include "host/Changes.h"
#include "host/ProgramContext.h"
#include "hostframework/ItemIdentifier.h"
#include "testing/CapturingLog.h"

namespace tarnwell::bench {
namespace {

constexpr std::string_view kDigits = "0123456789abcdef";

std::string hexadecimal(const Bytes& bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

Bytes bytesOfHexadecimal(const std::string& text) {
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(kDigits.find(text[i]) * 16 + kDigits.find(text[i + 1])));
    }
    return bytes;
}

/// What is told of one object, as a line.
std::string lineOf(const host::ChangeReport& report) {
    if (!report.updated) return nlohmann::json{{"gone", *report.deleted}}.dump() + "\n";
    const auto& item = *report.updated;
    nlohmann::json json = {{"identifier", item.itemIdentifier()}, {"name", item.filename()}};
    if (const auto size = item.documentSize()) json["size"] = *size;
    if (const auto date = item.contentModificationDate()) {
        const auto since = date->time_since_epoch();
        json["mtime_ms"] = std::chrono::duration_cast<std::chrono::milliseconds>(since).count();
    }
    return json.dump() + "\n";
}

std::string changesSince(hostframework::ProviderEnumerator& enumerator, Bytes anchor) {
    std::string lines;
    for (bool more = true; more;) {
        const auto batch = host::changesSince(enumerator, anchor);
        if (!batch) return "end failed\n";
        for (const auto& report : batch->reports) lines += lineOf(report);
        anchor = batch->anchor;
        more = batch->moreComing;
    }
    return lines + "end " + hexadecimal(anchor) + "\n";
}

class OurFollower : public Follower {
public:
    OurFollower(std::string program, std::string home) : program_(std::move(program)), home_(std::move(home)) {}
    const char* name() const override { return "ours"; }
    Outcome<void> start() override {
        auto process = ServerProcess::start({program_, "--follow", home_}, home_, home_ + "/private/ours.log");
        if (!process) return std::unexpected(process.error());
        process_ = std::move(*process);
        return {};
    }
    Outcome<void> stop() override {
        if (!process_->waitForEnd()) return std::unexpected("ours does not end");
        process_.reset();
        return {};
    }
    Outcome<void> waitUntilLive() override {
        const auto answer = ask("live");
        return answer ? Outcome<void>() : std::unexpected(answer.error());
    }
    Outcome<std::string> position() override {
        const auto answer = ask("anchor");
        if (!answer) return answer;
        const auto told = read(*answer);
        return told ? Outcome<std::string>(told->position) : std::unexpected(told.error());
    }
    Outcome<std::string> changesSince(const std::string& position) override { return ask("since " + position); }
    std::uint64_t residentKilobytes() const override { return process_->residentKilobytes(); }
    Outcome<Told> read(const std::string& answer) const override {
        Told told;
        const std::size_t end = answer.rfind("end ");
        told.objects = static_cast<std::uint64_t>(std::count(answer.begin(), answer.end(), '\n')) - 1;
        told.position = answer.substr(end + 4, answer.size() - end - 5);
        if (told.position == "failed") return std::unexpected("ours does not tell what changed");
        return told;
    }

private:
    Outcome<std::string> ask(const std::string& line) {
        if (!sendAll(process_->input(), line + "\n")) return std::unexpected("ours ended");
        return readThrough(process_->output(), "end ");
    }
    const std::string program_, home_;
    std::unique_ptr<ServerProcess> process_;
};

}  // namespace

std::unique_ptr<Follower> ourFollower(const std::string& program, const std::string& home) {
    return std::make_unique<OurFollower>(program, home);
}

int follow(const std::string& home) {
    testing::CapturingLog log;
    log.setThreshold(log::Level::off);
    const auto program = startProgram(home, log);
    if (!program) {
        progress(program.error());
        return 1;
    }
    host::ProgramContext& context = **program;
    if (auto watching = context.watchForChanges(); !watching) progress(tarnwell::describe(watching.error()));
    auto enumerator = context.provider().enumeratorForContainerItemIdentifier(
        hostframework::ItemIdentifier(hostframework::kWorkingSetContainer));
    if (!enumerator) {
        progress(tarnwell::describe(enumerator.error()));
        return 1;
    }
    for (std::string line; std::getline(std::cin, line);) {
        std::string answer = "end \n";
        if (line == "live") {
            while (!context.liveStatus()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        } else if (line == "anchor") {
            (*enumerator)->currentSyncAnchorWithCompletionHandler([&](const auto& anchor) {
                answer = "end " + (anchor ? hexadecimal(*anchor) : "failed") + "\n";
            });
        } else if (line.starts_with("since ")) {
            answer = changesSince(**enumerator, bytesOfHexadecimal(line.substr(6)));
        }
        if (!sendAll(STDOUT_FILENO, answer)) break;
    }
    (*enumerator)->invalidate();
    return 0;
}

}  // namespace tarnwell::bench
