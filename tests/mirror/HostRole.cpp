#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>

#include "host/Changes.h"
#include "host/ItemOperations.h"
#include "host/Listing.h"
#include "host/Paths.h"
#include "host/ProgramContext.h"
#include "testing/CapturingLog.h"
#include "testing/InChild.h"
#include "tests/mirror/Kept.h"
#include "tests/mirror/Roles.h"

namespace tarnwell::mirror {
namespace {

Message refusal(const Error& error) {
    return {"error", std::to_string(static_cast<int>(error.domain)), std::to_string(error.code), describe(error)};
}

Bytes bytesFrom(const std::string& text) {
    const ByteView bytes = bytesOf(text);
    return {bytes.begin(), bytes.end()};
}

/// The host's side of the provider: one request after the other.
class Host {
public:
    Host(host::ProgramContext& context, bool isLimited) : context_(context), isLimited_(isLimited) {}

    Message answer(const Message& message) {
        const std::string& verb = message.at(0);
        if (verb == "anchor") return anchor(message.at(1));
        if (verb == "list") return list(message.at(1));
        if (verb == "item") return item(message.at(1));
        if (verb == "identify") return identify(message);
        if (verb == "status") return status();
        if (verb == "do") return operate(message);
        return changes(message.at(1), message.at(2));
    }

private:
    Message anchor(const std::string& container) {
        const auto anchor = host::currentSyncAnchor(context_.provider(), container);
        if (!anchor) return refusal(anchor.error());
        if (!*anchor) return {"error", "-1", "0", "there is no anchor"};
        return {"ok", std::string(textOf(**anchor))};
    }

    Message list(const std::string& container) {
        const auto listed =
            host::listContainer(context_.provider(), container, {.depth = host::Depth::recursive, .progress = {}});
        if (!listed) return refusal(listed.error());
        Message answer{"ok"};
        for (const auto& [item, path] : *listed) append(answer, keptOf(*item));
        return answer;
    }

    std::optional<std::string> identifierAt(const std::string& path) {
        const auto url = host::urlForPath(context_.roots(), path);
        return url ? host::identifierForURL(context_, *url) : std::nullopt;
    }

    Message operate(const Message& message) {
        const std::string &verb = message.at(1), &item = message.at(2);
        const auto told = [](const auto& outcome) { return outcome ? Message{"ok"} : refusal(outcome.error()); };
        host::ItemOperations operations(context_);
        if (verb == "mkdir") return told(operations.makeFolder(message.at(3), item));
        if (verb == "import") return told(operations.import(message.at(3), item));
        if (verb == "rename") return told(operations.rename(item, message.at(3)));
        if (verb == "move") return told(operations.move(item, message.at(3), std::nullopt));
        if (verb == "trash") return told(operations.trash(item));
        if (verb == "restore") return told(operations.restore(item, std::nullopt));
        if (verb == "delete") return told(operations.remove(item));
        if (verb == "tag") return told(operations.setTags(item, {message.at(3)}));
        return told(operations.setRank(item, std::stoull(message.at(3))));
    }

    Message status() const {
        const auto live = context_.liveStatus();
        const std::string limited = isLimited_ ? "limited" : "";
        if (!live) return {"ok", "0", "0", limited};
        return {"ok", std::to_string(live->overflows), std::to_string(live->polledFolders), limited};
    }

    Message item(const std::string& path) {
        const auto identifier = identifierAt(path);
        if (!identifier) return {"ok"};
        const auto item = context_.provider().itemForIdentifier(*identifier);
        if (!item) return {"ok"};
        Message answer{"ok"};
        append(answer, keptOf(**item));
        return answer;
    }

    Message identify(const Message& message) {
        Message answer{"ok"};
        for (std::size_t i = 1; i < message.size(); ++i) answer.push_back(identifierAt(message[i]).value_or(""));
        return answer;
    }

    Message changes(const std::string& container, const std::string& anchor) {
        auto follower = followers_.find(container);
        if (follower == followers_.end()) {
            auto made = host::ChangeFollower::create(context_.provider(), container);
            if (!made) return refusal(made.error());
            follower = followers_.emplace(container, std::move(*made)).first;
        }
        const auto batch = follower->second.changesSince(bytesFrom(anchor));
        if (!batch) {
            followers_.erase(follower);
            return refusal(batch.error());
        }
        Message answer{"ok", std::string(textOf(batch->anchor)), batch->moreComing ? "more" : ""};
        for (const auto& report : batch->reports) {
            answer.emplace_back(report.deleted ? "-" : "+");
            if (report.deleted) {
                answer.push_back(*report.deleted);
            } else {
                append(answer, keptOf(*report.updated));
            }
        }
        return answer;
    }

    host::ProgramContext& context_;
    const bool isLimited_;
    std::map<std::string, host::ChangeFollower> followers_;
};

/// Errors of the program: those of a file that went while it was looked at are no news, so that they are shown only
/// when asked for.
class ErrorLog : public log::Log {
public:
    ErrorLog() { setThreshold(std::getenv("TARNWELL_LOG") != nullptr ? log::Level::debug : log::Level::off); }

private:
    void emit(log::Level, std::string_view text) override {
        std::fprintf(stderr, "%.*s\n", static_cast<int>(text.size()), text.data());
    }
};

/// Leaves this process a few watches, of whichever kind; false where a machine does not let it.
bool limitWatches() {
    constexpr const char* kFew = "12";
    constexpr ssize_t kLength = 2;
    if (testing::becomeOwnerOfUserNamespace()) return false;
    for (const char* limit : {"/proc/sys/user/max_fanotify_marks", "/proc/sys/user/max_inotify_watches"}) {
        const Descriptor file(::open(limit, O_WRONLY | O_CLOEXEC));
        if (!file.valid() || ::write(file.get(), kFew, kLength) != kLength) return false;
    }
    return true;
}

}  // namespace

int hostProvider(const std::string& home, const std::string& finding) {
    const bool isLimited = finding == kLimited && limitWatches();
    // The types of this device, not of whoever runs the test.
    ::setenv("XDG_DATA_HOME", (home + "/.local/share").c_str(), 1);
    ErrorLog log;
    auto context = host::ProgramContext::create(settingsOf(home), log);
    if (!context) {
        std::fprintf(stderr, "%s\n", describe(context.error()).c_str());
        return 1;
    }
    (*context)->prepareForRequests();
    // Where the kernel offers nothing, comparing it is.
    if (finding != kComparing) (void)(*context)->watchForChanges();
    Host host(**context, isLimited);
    while (const auto message = receive(STDIN_FILENO)) {
        if (!send(STDOUT_FILENO, host.answer(*message))) return 1;
    }
    return 0;
}

}  // namespace tarnwell::mirror
