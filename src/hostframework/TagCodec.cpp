#include "hostframework/TagCodec.h"

#include <limits>
#include <utility>

#include "platform/archive/PropertyList.h"
#include "platform/base/UTF8.h"

namespace tarnwell::hostframework {
namespace {

using archive::Integer;
using archive::Value;

constexpr const char* kLabelKey = "label";
constexpr const char* kColorKey = "color";

/// A label is text; one that is not UTF-8 (nothing forbids it) travels as the bytes that it is.
Value labelValue(const std::string& label) {
    if (isUTF8(label)) return Value(label);
    ByteView bytes = bytesOf(label);
    return Value(Bytes(bytes.begin(), bytes.end()));
}

std::optional<std::string> labelFrom(const Value* value) {
    if (!value) return std::nullopt;
    if (auto text = value->as<std::string>()) return *text;
    if (auto bytes = value->as<Bytes>()) return std::string(textOf(*bytes));
    return std::nullopt;
}

std::optional<Tag> tagFrom(const Value& value) {
    auto label = labelFrom(value.find(kLabelKey));
    if (!label) return std::nullopt;
    Tag tag{std::move(*label), std::nullopt};
    if (const Value* color = value.find(kColorKey)) {
        auto number = color->as<Integer>();
        if (!number || number->negative || number->magnitude > std::numeric_limits<std::uint8_t>::max())
            return std::nullopt;
        tag.color = static_cast<std::uint8_t>(number->magnitude);
    }
    return tag;
}

}  // namespace

Bytes TagCodec::encode(const std::vector<Tag>& tags) {
    archive::Array list;
    for (const Tag& tag : tags) {
        archive::Dictionary entry{{kLabelKey, labelValue(tag.label)}};
        if (tag.color) entry.emplace_back(kColorKey, Integer::fromUnsigned(*tag.color));
        list.emplace_back(std::move(entry));
    }
    return archive::writeBinaryPropertyList(Value(std::move(list)));
}

std::optional<std::vector<Tag>> TagCodec::decode(ByteView bytes) {
    auto root = archive::readBinaryPropertyList(bytes);
    if (!root || !root->array()) return std::nullopt;
    std::vector<Tag> tags;
    for (const Value& value : *root->array()) {
        auto tag = tagFrom(value);
        if (!tag) return std::nullopt;
        tags.push_back(std::move(*tag));
    }
    return tags;
}

}  // namespace tarnwell::hostframework
