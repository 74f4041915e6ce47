#include "tests/mirror/Kept.h"

#include <charconv>

#include "hostframework/TagCodec.h"

namespace tarnwell::mirror {
namespace {

template <typename T>
std::string textOfNumber(const std::optional<T>& number) {
    return number ? std::to_string(*number) : std::string();
}

template <typename T>
std::optional<T> numberOf(const std::string& text) {
    if (text.empty()) return std::nullopt;
    T number{};
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

}  // namespace

std::string describe(const Kept& kept) {
    const auto orNone = [](const std::string& text) { return text.empty() ? std::string("none") : text; };
    return "\"" + kept.name + "\" in " + kept.parent + ", size " + orNone(textOfNumber(kept.size)) + ", modified " +
           orNone(textOfNumber(kept.modified)) + ", tags " +
           (kept.tags ? std::to_string(std::hash<std::string>()(*kept.tags) % 10'000) : "none") + ", rank " +
           orNone(textOfNumber(kept.rank)) + (kept.isFolder ? ", folder" : "");
}

std::string encodedTags(const std::vector<std::string>& labels) {
    std::vector<hostframework::Tag> tags;
    for (const std::string& label : labels) tags.push_back({label, std::nullopt});
    return std::string(textOf(hostframework::TagCodec::encode(tags)));
}

Identified keptOf(const session::Item& item) {
    Kept kept{.parent = item.parent, .name = item.filename};
    kept.size = item.documentSize;
    if (item.contentModificationDate) kept.modified = item.contentModificationDate->time_since_epoch().count();
    if (item.tags) kept.tags = encodedTags(*item.tags);
    kept.rank = item.favoriteRank;
    kept.isFolder = item.isFolder;
    return {item.identifier, std::move(kept)};
}

void append(Message& message, const Identified& item) {
    const Kept& kept = item.kept;
    message.insert(message.end(), {item.identifier, kept.parent, kept.name, textOfNumber(kept.size),
                                   textOfNumber(kept.modified), kept.tags ? "+" + *kept.tags : std::string(),
                                   textOfNumber(kept.rank), kept.isFolder ? "folder" : ""});
}

Identified takeItem(const Message& message, std::size_t& at) {
    Identified item;
    item.identifier = message.at(at);
    item.kept.parent = message.at(at + 1);
    item.kept.name = message.at(at + 2);
    item.kept.size = numberOf<std::uint64_t>(message.at(at + 3));
    item.kept.modified = numberOf<std::int64_t>(message.at(at + 4));
    if (const std::string& tags = message.at(at + 5); !tags.empty()) item.kept.tags = tags.substr(1);
    item.kept.rank = numberOf<std::uint64_t>(message.at(at + 6));
    item.kept.isFolder = !message.at(at + 7).empty();
    at += 8;
    return item;
}

}  // namespace tarnwell::mirror
