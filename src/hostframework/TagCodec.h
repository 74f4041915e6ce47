#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/base/Ids.h"

namespace tarnwell::hostframework {

/// A tag as a host shows it: a label, and a colour number where it has one.
struct Tag {
    std::string label;
    std::optional<std::uint8_t> color;
    friend bool operator==(const Tag&, const Tag&) = default;
};

/// Tags as the bytes that travel between host and provider: a binary property list, an array of dictionaries with
/// "label" and, where there is one, "color". No tags encode to an empty array, which differs from no data.
class TagCodec {
public:
    static Bytes encode(const std::vector<Tag>& tags);
    /// Nothing for bytes that are no tags.
    static std::optional<std::vector<Tag>> decode(ByteView bytes);
};

}  // namespace tarnwell::hostframework
