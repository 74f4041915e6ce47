#include "tests/mirror/Answers.h"

#include "session/Listing.h"
#include "tests/mirror/Kept.h"

namespace tarnwell::mirror {
namespace {

Message refusal(const Error& error) {
    return {"error", std::to_string(static_cast<int>(error.domain)), std::to_string(error.code), describe(error)};
}

Bytes bytesFrom(const std::string& text) {
    const ByteView bytes = bytesOf(text);
    return {bytes.begin(), bytes.end()};
}

template <typename T>
Message told(const Result<T>& outcome) {
    return outcome ? Message{"ok"} : refusal(outcome.error());
}

}  // namespace

Message Answers::to(const Message& message) {
    const std::string& verb = message.at(0);
    if (verb == "anchor") return anchor(message.at(1));
    if (verb == "list") return list(message.at(1));
    if (verb == "item") return item(message.at(1));
    if (verb == "identify") return identify(message);
    if (verb == "status") return status();
    if (verb == "do") return operate(message);
    return changes(message.at(1), message.at(2));
}

Message Answers::anchor(const std::string& container) {
    const auto anchor = session_.currentAnchor(container);
    if (!anchor) return refusal(anchor.error());
    if (!*anchor) return {"error", "-1", "0", "there is no anchor"};
    return {"ok", std::string(textOf(**anchor))};
}

Message Answers::list(const std::string& container) {
    const auto listed =
        session::listContainer(session_, container, {.depth = session::Depth::recursive, .progress = {}});
    if (!listed) return refusal(listed.error());
    Message answer{"ok"};
    for (const auto& one : *listed) append(answer, keptOf(one.item));
    return answer;
}

Message Answers::item(const std::string& path) {
    const auto identifier = session_.identifiersAtPaths({path}, session::PathUse::lookUp).at(0);
    if (!identifier) return {"ok"};
    const auto item = session_.items({*identifier}).at(0);
    if (!item) return {"ok"};
    Message answer{"ok"};
    append(answer, keptOf(*item));
    return answer;
}

Message Answers::identify(const Message& message) {
    Message answer{"ok"};
    for (const auto& found :
         session_.identifiersAtPaths({message.begin() + 1, message.end()}, session::PathUse::lookUp)) {
        answer.push_back(found.value_or(""));
    }
    return answer;
}

Message Answers::status() {
    const auto status = session_.status();
    if (!status) return refusal(status.error());
    return {"ok", std::to_string(status->overflows), std::to_string(status->polledFolders), ""};
}

Message Answers::operate(const Message& message) {
    const std::string &verb = message.at(1), &item = message.at(2);
    session::JobControl job;
    if (verb == "mkdir") return told(session_.makeFolder(message.at(3), item));
    if (verb == "import") return told(session_.import({message.at(3)}, item, job).at(0));
    if (verb == "rename") return told(session_.rename(item, message.at(3)));
    if (verb == "move") return told(session_.move({item}, message.at(3), std::nullopt, job).at(0));
    if (verb == "trash") return told(session_.trash({item}, job).at(0));
    if (verb == "restore") return told(session_.restore({item}, std::nullopt, job).at(0));
    if (verb == "delete") return told(session_.remove({item}, job).at(0));
    if (verb == "tag") return told(session_.setTags(item, {message.at(3)}));
    return told(session_.setRank(item, std::stoull(message.at(3))));
}

Message Answers::changes(const std::string& container, const std::string& anchor) {
    const auto batch = session_.changes(container, bytesFrom(anchor));
    if (!batch) return refusal(batch.error());
    Message answer{"ok", std::string(textOf(batch->anchor)), batch->moreComing ? "more" : ""};
    for (const auto& change : batch->changes) {
        answer.emplace_back(change.item ? "+" : "-");
        if (change.item) {
            append(answer, keptOf(*change.item));
        } else {
            answer.push_back(change.identifier);
        }
    }
    return answer;
}

}  // namespace tarnwell::mirror
